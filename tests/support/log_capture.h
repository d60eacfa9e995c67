#pragma once

#include <spdlog/sinks/ostream_sink.h>
#include <spdlog/spdlog.h>

#include <memory>
#include <sstream>
#include <string>

namespace varnel::test {

/// Collects the log lines ("level: text") of the process while it lives.
class LogCapture {
 public:
  explicit LogCapture(spdlog::level::level_enum level = spdlog::level::info)
      : before_(spdlog::default_logger()),
        sink_(std::make_shared<spdlog::sinks::ostream_sink_mt>(text_)) {
    auto logger = std::make_shared<spdlog::logger>("capture", sink_);
    logger->set_level(level);
    logger->set_pattern("%l: %v");
    spdlog::set_default_logger(std::move(logger));
  }
  ~LogCapture() { spdlog::set_default_logger(before_); }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  /// Only while no other thread logs.
  std::string Text() const { return text_.str(); }

 private:
  std::shared_ptr<spdlog::logger> before_;
  std::ostringstream text_;
  std::shared_ptr<spdlog::sinks::ostream_sink_mt> sink_;
};

}  // namespace varnel::test
