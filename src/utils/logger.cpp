#include "utils/logger.h"

#include <spdlog/spdlog.h>

#include <iostream>
#include <memory>
#include <stdexcept>

#include "utils/log.h"
#include "utils/log_file_sink.h"

namespace varnel::utils {
namespace {

constexpr const char* kTag = "MAIN";
constexpr size_t kMegabyteShift = 20;

}  // namespace

// Errors inside spdlog go to its own handler: standard error, once a second at most, never back
// into a logger.
Logger::Logger(const std::string& name, const std::string& path, size_t max_size_mb,
               size_t max_files, Clock& clock) {
  if (name.empty() || path.empty()) {
    constexpr const char* kText = "Logger: must specify log file path and name!";
    std::cout << kText << std::endl;
    throw std::runtime_error(kText);
  }
  if (max_size_mb == 0) {
    throw std::runtime_error("Logger: the maximum file size must not be 0");
  }
  auto sink = std::make_shared<LogFileSink>(path, max_size_mb << kMegabyteShift, max_files, clock);
  auto logger = std::make_shared<spdlog::logger>(name, std::move(sink));
  spdlog::initialize_logger(logger);
  spdlog::set_default_logger(std::move(logger));
  VLOG_INFO(kTag, "log name: {}, file size: {} MB, count: {}", name, max_size_mb, max_files);
}

}  // namespace varnel::utils
