#pragma once

#include <string_view>

namespace varnel::comms {

/// Whether `topic` is selected by `filter` as MQTT 5.0, section 4.7 defines it: "+" stands for one
/// level, a last "#" for any number of levels including the parent, and a leading wildcard never
/// selects a topic that begins with "$".
bool TopicMatches(std::string_view filter, std::string_view topic);

/// Whether the filter holds a wildcard at all.
bool HasWildcard(std::string_view filter);

}  // namespace varnel::comms
