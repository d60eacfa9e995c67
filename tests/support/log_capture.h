#pragma once

#include <fmt/format.h>
#include <spdlog/sinks/base_sink.h>
#include <spdlog/spdlog.h>

#include <algorithm>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

namespace varnel::test {

/// Collects what the process logs while it lives, instead of the default logger: "E [IMMM:12]
/// select error", the level as its first letter. Readable while other threads log.
class LogCapture {
 public:
  explicit LogCapture(spdlog::level::level_enum level = spdlog::level::trace)
      : before_(spdlog::default_logger()) {
    auto logger = std::make_shared<spdlog::logger>("capture", sink_);
    logger->set_level(level);
    logger->set_pattern("%L %v");
    spdlog::set_default_logger(std::move(logger));
  }
  ~LogCapture() { spdlog::set_default_logger(before_); }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<std::string> Lines() const {
    std::istringstream text(Text());
    std::vector<std::string> lines;
    for (std::string line; std::getline(text, line);) lines.push_back(line);
    return lines;
  }
  std::string Text() const { return sink_->Text(); }
  /// How many lines are of this tag and end with this text.
  size_t Count(std::string_view tag, std::string_view text) const {
    const std::string prefix = fmt::format("[{}:", tag);
    const std::string ending = fmt::format("] {}", text);
    const std::vector<std::string> lines = Lines();
    return static_cast<size_t>(std::count_if(lines.begin(), lines.end(), [&](const auto& line) {
      return line.find(prefix) == 2 && line.ends_with(ending);
    }));
  }
  bool Has(std::string_view tag, std::string_view text) const { return Count(tag, text) > 0; }

 private:
  class Sink : public spdlog::sinks::base_sink<std::mutex> {
   public:
    std::string Text() {
      const std::lock_guard lock(mutex_);
      return text_;
    }

   private:
    void sink_it_(const spdlog::details::log_msg& message) override {
      spdlog::memory_buf_t line;
      formatter_->format(message, line);
      text_.append(line.data(), line.size());
    }
    void flush_() override {}

    std::string text_;
  };

  const std::shared_ptr<spdlog::logger> before_;
  const std::shared_ptr<Sink> sink_ = std::make_shared<Sink>();
};

}  // namespace varnel::test
