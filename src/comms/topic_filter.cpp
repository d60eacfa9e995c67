#include "comms/topic_filter.h"

#include <optional>

namespace varnel::comms {
namespace {

/// Takes the first level off `rest`; an empty optional afterwards means that no level is left.
std::string_view TakeLevel(std::optional<std::string_view>& rest) {
  const std::string_view text = *rest;
  const size_t slash = text.find('/');
  if (slash == std::string_view::npos) {
    rest.reset();
    return text;
  }
  rest = text.substr(slash + 1);
  return text.substr(0, slash);
}

}  // namespace

bool HasWildcard(std::string_view filter) {
  return filter.find_first_of("+#") != std::string_view::npos;
}

bool TopicMatches(std::string_view filter, std::string_view topic) {
  if (filter.empty() || topic.empty()) return false;
  const bool leading_wildcard = filter[0] == '+' || filter[0] == '#';
  if (leading_wildcard && topic[0] == '$') return false;

  std::optional<std::string_view> wanted = filter;
  std::optional<std::string_view> given = topic;
  while (wanted) {
    const std::string_view level = TakeLevel(wanted);
    if (level == "#") return !wanted;
    if (!given) return false;
    const std::string_view name = TakeLevel(given);
    if (level != "+" && level != name) return false;
  }
  return !given;
}

}  // namespace varnel::comms
