#include "service/system/export/export_instruction.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <exception>
#include <nlohmann/json.hpp>
#include <string>
#include <system_error>
#include <utility>

#include "utils/descriptor_path.h"
#include "utils/last_error.h"
#include "utils/log.h"
#include "utils/log_text.h"
#include "utils/owned.h"
#include "utils/result.h"

namespace varnel::service {
namespace {

using nlohmann::json;
using namespace std::chrono_literals;
using Text = utils::Result<std::string, std::error_code>;

constexpr const char* kTag = "COLLM";
constexpr const char* kDirectory = ".maintenance";
constexpr const char* kFile = "export_log.json";
constexpr const char* kPath = ".maintenance/export_log.json";
constexpr size_t kMaxBytes = size_t{1} << 20U;
constexpr std::chrono::milliseconds kMaxTime = 1s;
/// Only shows what it is: to open a device, or a FIFO, does something already.
constexpr int kLook = O_PATH | O_NOFOLLOW | O_CLOEXEC;

/// Before Linux 5.6.
utils::UniqueFd FindStepByStep(const utils::HeldDirectory& drive) {
  std::error_code error;
  const auto directory = drive.OpenIn(kDirectory, error);
  if (!directory) errno = error.value();
  return utils::UniqueFd(directory ? ::openat(directory->Fd(), kFile, kLook) : -1);
}

utils::UniqueFd Find(const utils::HeldDirectory& drive) {
  open_how how{};
  how.flags = kLook;
  how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_XDEV;
  utils::UniqueFd fd(static_cast<int>(::syscall(SYS_openat2, drive.Fd(), kPath, &how, sizeof how)));
  return fd || errno != ENOSYS ? std::move(fd) : FindStepByStep(drive);
}

std::error_code Judge(const struct stat& file, const utils::HeldDirectory& drive) {
  struct stat top {};
  if (::fstat(drive.Fd(), &top) != 0) return utils::LastError();
  if (file.st_dev != top.st_dev) return std::make_error_code(std::errc::cross_device_link);
  if (S_ISLNK(file.st_mode)) return std::make_error_code(std::errc::too_many_symbolic_link_levels);
  if (!S_ISREG(file.st_mode)) return std::make_error_code(std::errc::not_supported);
  if (file.st_size > static_cast<off_t>(kMaxBytes))
    return std::make_error_code(std::errc::file_too_large);
  return {};
}

Text ReadAll(int fd, const utils::Clock& clock) {
  const auto deadline = clock.Now() + kMaxTime;
  std::array<char, 65'536> piece;
  std::string text;
  for (;;) {
    const ssize_t got = ::read(fd, piece.data(), piece.size());
    if (got == 0) return text;
    if (got < 0 && errno != EINTR) return utils::LastError();
    if (got > 0) text.append(piece.data(), static_cast<size_t>(got));
    if (text.size() > kMaxBytes) return std::make_error_code(std::errc::file_too_large);
    if (clock.Now() > deadline) return std::make_error_code(std::errc::timed_out);
  }
}

Text ReadInstruction(const utils::HeldDirectory& drive, const utils::Clock& clock) {
  const utils::UniqueFd found = Find(drive);
  struct stat file {};
  if (!found || ::fstat(found.Get(), &file) != 0) return utils::LastError();
  if (const std::error_code error = Judge(file, drive)) return error;
  const utils::UniqueFd fd(
      ::open(utils::DescriptorPath(found.Get()).c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  return fd ? ReadAll(fd.Get(), clock) : utils::LastError();
}

/// Nothing but "action" is kept, however much there is.
bool Keep(int depth, json::parse_event_t event, json& parsed) {
  if (event == json::parse_event_t::array_start) return false;
  if (event == json::parse_event_t::key) return depth == 1 && parsed == "action";
  return depth <= 1;
}

bool IsForExport(const std::string& text) try {
  const json instruction = json::parse(text, Keep);
  const auto action = instruction.is_object() ? instruction.find("action") : instruction.end();
  if (action != instruction.end() && *action == "export_log") return true;
  VLOG_ERROR(kTag, "export_log.json: unsupported or missing action");
  return false;
} catch (const json::parse_error& error) {
  VLOG_ERROR(kTag, "export_log.json: parse error at byte {}", error.byte);
  return false;
} catch (const std::exception& error) {
  VLOG_ERROR(kTag, "export_log.json: {}", utils::LogText(error.what()));
  return false;
}

}  // namespace

bool AsksForExport(const utils::HeldDirectory& drive, const utils::Clock& clock) {
  const Text text = ReadInstruction(drive, clock);
  if (text) return IsForExport(*text);
  if (text.Why() != std::errc::no_such_file_or_directory)
    VLOG_ERROR(kTag, "export_log.json: {}", text.Why().message());
  return false;
}

}  // namespace varnel::service
