#pragma once

#include <spdlog/spdlog.h>

/// One line to the process log: "[tag:line] " and the text. The format is a literal checked at
/// compile time, is formatted only when the level lets it through, and nothing is ever thrown.
/// Callable from any thread.
#define VLOG_DEBUG(tag, text, ...) VLOG_LINE_(debug, tag, text __VA_OPT__(, ) __VA_ARGS__)
#define VLOG_INFO(tag, text, ...) VLOG_LINE_(info, tag, text __VA_OPT__(, ) __VA_ARGS__)
#define VLOG_WARN(tag, text, ...) VLOG_LINE_(warn, tag, text __VA_OPT__(, ) __VA_ARGS__)
#define VLOG_ERROR(tag, text, ...) VLOG_LINE_(error, tag, text __VA_OPT__(, ) __VA_ARGS__)
#define VLOG_CRITICAL(tag, text, ...) VLOG_LINE_(critical, tag, text __VA_OPT__(, ) __VA_ARGS__)

/// At a level that is chosen at run time.
#define VLOG_AT(level, tag, text, ...) \
  ::spdlog::log(level, "[{}:{}] " text, tag, __LINE__ __VA_OPT__(, ) __VA_ARGS__)

#define VLOG_LINE_(level, tag, text, ...) \
  ::spdlog::level("[{}:{}] " text, tag, __LINE__ __VA_OPT__(, ) __VA_ARGS__)
