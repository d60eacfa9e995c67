#pragma once

#include <cstddef>
#include <nlohmann/json.hpp>

namespace varnel::service {

/// What a client asks to be listed. Pages are counted from 1.
struct TimelapseQuery {
  bool all = true;
  size_t page_index = 1;
  size_t page_rows = 10;
  bool thumbnail_inline = false;
};

/// {"total_count", "page_index", "page_rows", "count", "instances"}, the newest first.
[[nodiscard]] nlohmann::json ListFilms(const nlohmann::json& description,
                                       const TimelapseQuery& query);

}  // namespace varnel::service
