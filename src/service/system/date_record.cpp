#include "service/system/date_record.h"

#include <string>
#include <system_error>
#include <utility>

#include "utils/atomic_file.h"
#include "utils/local_time.h"
#include "utils/log.h"
#include "utils/log_text.h"

namespace varnel::service {
namespace {

constexpr const char* kTag = "TSYNC";
constexpr const char* kFileName = "last_recorded_date";

int64_t SecondsOf(utils::Clock::WallTime time) {
  return std::chrono::floor<std::chrono::seconds>(time.time_since_epoch()).count();
}

}  // namespace

DateRecord::DateRecord(std::filesystem::path directory, utils::Clock& clock)
    : directory_(std::move(directory)), clock_(clock) {}

DateRecord::~DateRecord() {
  Stop();
}

void DateRecord::Start() {
  if (task_) {
    VLOG_INFO(kTag, "Record system date task is already running.");
    return;
  }
  task_.emplace("date-record", kTag, clock_,
                [this](const utils::PausingThread::Pause& pause) { Run(pause); });
}

void DateRecord::Stop() {
  task_.reset();
}

void DateRecord::Run(const utils::PausingThread::Pause& pause) const {
  VLOG_INFO(kTag, "Record system date task start.");
  do RecordGuarded();
  while (pause(kPeriod));
  VLOG_INFO(kTag, "Record system date task end.");
}

/// Whatever one record meets, the next one is tried.
void DateRecord::RecordGuarded() const {
  try {
    Record();
  } catch (const std::exception& error) {
    VLOG_ERROR(kTag, "Record system date failed: {}", utils::LogText(error.what()));
  }
}

void DateRecord::Record() const {
  const auto digits = utils::LocalTimeDigits(SecondsOf(clock_.WallNow()));
  if (!digits) return;
  // The write tells what a missing directory means.
  std::error_code ignored;
  std::filesystem::create_directories(directory_, ignored);
  const std::filesystem::path file = directory_ / kFileName;
  // Without a directory of ours it would end up in the working directory.
  if (directory_.empty() || utils::WriteFileAtomically(file, *digits)) {
    VLOG_ERROR(kTag, "Open file '{}' failed.", utils::LogText(file.string()));
  }
}

}  // namespace varnel::service
