#pragma once

#include <spdlog/spdlog.h>

/// printf-style log lines for the C-style platform layer: "[tag:line] " and the text, of any
/// length, formatted only when the level lets it through.
#define PLOG_DEBUG(tag, ...) PLOG_LINE_(debug, tag, __VA_ARGS__)
#define PLOG_INFO(tag, ...) PLOG_LINE_(info, tag, __VA_ARGS__)
#define PLOG_WARN(tag, ...) PLOG_LINE_(warn, tag, __VA_ARGS__)
#define PLOG_ERROR(tag, ...) PLOG_LINE_(err, tag, __VA_ARGS__)

#define PLOG_LINE_(severity, tag, ...)                                                   \
  do {                                                                                   \
    if (::spdlog::should_log(::spdlog::level::severity)) {                               \
      ::varnel::utils::LogPrintf(::spdlog::level::severity, tag, __LINE__, __VA_ARGS__); \
    }                                                                                    \
  } while (false)

namespace varnel::utils {

/// Use the macros.
void LogPrintf(spdlog::level::level_enum level, const char* tag, int line, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

}  // namespace varnel::utils
