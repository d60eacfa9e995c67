#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "hal_adapter/photo_taker.h"
#include "service/camera/monitor/monitor_encryption.h"
#include "service/camera/monitor/monitor_files.h"
#include "service/camera/monitor/monitor_switches.h"
#include "service/camera/monitor/monitor_task.h"
#include "service/camera/monitor/monitor_upload.h"
#include "service/cloud/upload/file_uploader.h"
#include "utils/board_places.h"
#include "utils/clock.h"
#include "utils/permits.h"

namespace varnel::service {

/// What monitoring is built from; the defaults are the board's.
struct MonitorSetup {
  MonitorPaths paths = {};
  MonitorEncryptionSettings encryption = {};
  std::string ffmpeg = utils::board::kFfmpeg;
  hal_adapter::PhotoTaker* camera = nullptr;  ///< must outlive the monitor
  std::shared_ptr<FileUploader> uploader = std::make_shared<NoUploader>();
  std::function<std::string()> serial_number = [] { return std::string("--"); };
  MonitorNotify notify;
  utils::Clock* clock = &utils::SystemClock::Instance();
};

/// What whoever watches needs. The password is a secret.
struct MonitorAccess {
  std::string url{};  ///< of the encrypted picture; empty when the cloud names none
  std::string password;
  uint32_t iterations = 0;
  std::string salt_hex;
};

/// Lets people watch the print, over the cloud and in the local network, until they stop or nobody
/// asks for it any more. Thread-safe.
class Monitor {
 public:
  /// Removes what an earlier run left.
  explicit Monitor(MonitorSetup setup);

  /// Switches a domain on, or renews it, once all that its pictures need has worked. Nothing when
  /// something has not, or when the domain is switched off meanwhile; the log tells why. Of two
  /// starts of "wan" at once one fails.
  [[nodiscard]] std::optional<MonitorAccess> Start(const std::string& domain,
                                                   std::chrono::milliseconds interval);
  /// Switches a domain off; also one that is off already. False: there is no such domain.
  [[nodiscard]] bool Stop(const std::string& domain);
  [[nodiscard]] MonitorDomains Domains() const { return switches_.Domains(); }

  /// Of those who watch, and that of the device.
  void ForEachSecret(const std::function<void(std::string_view secret)>& visit) const;
  /// For the process's end: switches all off. Does not wait.
  void RequestEnd() { switches_.RequestEnd(); }
  /// Removes its pictures.
  void ClearFiles() const { files_.Clear(); }

 private:
  using Crypto = MonitorSwitches::Crypto;

  std::optional<MonitorAccess> StartDomain(const MonitorSwitches::Attempt& attempt,
                                           std::chrono::milliseconds interval);
  std::optional<std::string> Rehearse(const MonitorSwitches::Attempt& attempt,
                                      const Crypto& crypto);

  const std::string ffmpeg_;
  const std::shared_ptr<FileUploader> uploader_;
  const MonitorNotify notify_;
  const MonitorEncryption encryption_;
  MonitorSwitches switches_;
  MonitorFiles files_;
  MonitorUpload upload_;
  utils::Permits wan_starts_{1};
  MonitorTask task_;  // last: its thread uses the rest
};

}  // namespace varnel::service
