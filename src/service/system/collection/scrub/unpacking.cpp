#include "service/system/collection/scrub/unpacking.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>

#include "utils/last_error.h"
#include "utils/safe_exec.h"

namespace varnel::service {
namespace {

constexpr size_t kPiece = 65'536;
constexpr uint32_t kStillMs = 60'000;
constexpr uint64_t kProcessorMs = 600'000;

/// Of ours, as another program sees it.
std::string PathForOthers(int fd) {
  return "/proc/" + std::to_string(::getpid()) + "/fd/" + std::to_string(fd);
}

}  // namespace

std::string Unpack(const UnpackSetup& setup, int packed, ScrubbedFile& copy) {
  bool wanted = true;
  utils::SafeExec command(setup.gzip);
  command.AddArg("-dc").AddArg(PathForOthers(packed)).SetIdlePriority();
  command.SetWorkLimits({.still_ms = kStillMs, .processor_ms = kProcessorMs, .progress = ""});
  command.SetOutputLimit(setup.max_bytes);
  command.SetOutputSink([&](std::string_view bytes) { wanted = wanted && copy.Feed(bytes); });
  command.SetStop([&] { return !wanted || setup.stopped(); });
  const auto run = command.TryExecute();
  if (!run) return run.Why();
  if (run->output_cut) return "too large when unpacked";
  return run->success || !wanted ? "" : "it cannot be unpacked to its end";
}

std::string ReadInto(ScrubbedFile& copy, int source, uint64_t first, uint64_t end,
                     const std::function<bool()>& stopped) {
  std::array<char, kPiece> piece;
  for (uint64_t at = first; at < end && !stopped();) {
    const auto wanted = static_cast<size_t>(std::min<uint64_t>(piece.size(), end - at));
    const ssize_t got = ::pread(source, piece.data(), wanted, static_cast<off_t>(at));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return utils::LastError().message();
    if (got == 0 || !copy.Feed({piece.data(), static_cast<size_t>(got)})) break;
    at += static_cast<uint64_t>(got);
  }
  return "";
}

}  // namespace varnel::service
