#include "service/camera/monitor/test_picture.h"

#include <unistd.h>

#include "utils/log.h"
#include "utils/safe_exec.h"

namespace varnel::service {
namespace {

constexpr const char* kTag = "MON";
constexpr uint32_t kLimitMs = 30'000;

}  // namespace

bool MakeTestPicture(const std::string& ffmpeg, const utils::PrivateDirectory& directory,
                     const std::string& name) {
  if (::access(ffmpeg.c_str(), X_OK) != 0) {
    VLOG_ERROR(kTag, "ffmpeg program is not exists.");
    return false;
  }
  utils::SafeExec command(ffmpeg);
  for (const char* argument : {"-v", "error", "-f", "lavfi", "-i", "color=c=black:s=1920x1080",
                               "-frames:v", "1", name.c_str()}) {
    command.AddArg(argument);
  }
  command.SetWorkingDir(directory.Fd()).SetTimeout(kLimitMs);
  const auto run = command.TryExecute();
  if (!run) {
    VLOG_ERROR(kTag, "Execute fatal error: {}", run.Why());
  } else if (!run->success) {
    VLOG_ERROR(kTag, "Execute error, code is {}", run->exit_code);
  }
  return run && run->success;
}

}  // namespace varnel::service
