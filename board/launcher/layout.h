#pragma once

#include <filesystem>

namespace varnel::board {

/// Where the parts of one board lie in its directory on the host. Everything but the
/// system's settings in etc/ stays between two boots.
class Layout {
 public:
  explicit Layout(const std::filesystem::path& directory)
      : root_(std::filesystem::absolute(directory).lexically_normal()) {}

  [[nodiscard]] const std::filesystem::path& Root() const { return root_; }
  [[nodiscard]] std::filesystem::path Userdata() const { return root_ / "userdata"; }
  [[nodiscard]] std::filesystem::path Home() const { return root_ / "home"; }
  [[nodiscard]] std::filesystem::path Oem() const { return root_ / "oem"; }
  [[nodiscard]] std::filesystem::path EtcVarnel() const { return root_ / "etc-varnel"; }
  [[nodiscard]] std::filesystem::path Tmp() const { return root_ / "tmp"; }
  [[nodiscard]] std::filesystem::path Run() const { return root_ / "run"; }
  [[nodiscard]] std::filesystem::path Sys() const { return root_ / "sys"; }
  [[nodiscard]] std::filesystem::path Etc() const { return root_ / "etc"; }
  /// The public key for archives of diagnosis, and the private one, which is not on the board.
  [[nodiscard]] std::filesystem::path Collection() const { return Etc() / "collection"; }
  [[nodiscard]] std::filesystem::path CollectionKey() const { return root_ / "collection_key.pem"; }
  [[nodiscard]] std::filesystem::path Proc() const { return root_ / "proc"; }
  [[nodiscard]] std::filesystem::path Dev() const { return root_ / "dev"; }

  /// Output of the services by name ("broker.log", "daemon.log"), "syslog", and "board.log" of the
  /// sandbox.
  [[nodiscard]] std::filesystem::path Log() const { return root_ / "log"; }
  /// Sockets and controls of the virtual board itself; "/run/varnel-board" inside.
  [[nodiscard]] std::filesystem::path Control() const { return Run() / "varnel-board"; }
  [[nodiscard]] std::filesystem::path Services() const { return Control() / "services.json"; }
  [[nodiscard]] std::filesystem::path BrokerSocket() const { return Control() / "mosquitto.sock"; }
  [[nodiscard]] std::filesystem::path Camera() const { return Control() / "camera"; }
  /// Faults and counters of the NPU.
  [[nodiscard]] std::filesystem::path Npu() const { return Control() / "npu"; }
  /// The networks that the daemon loads.
  [[nodiscard]] std::filesystem::path Networks() const {
    return EtcVarnel() / "camera_service/model";
  }
  /// Orders for the upgrade script, and what it did.
  [[nodiscard]] std::filesystem::path Upgrade() const { return Control() / "upgrade"; }
  /// By how many seconds the clock of the daemon of a board booted for it is ahead; may change at
  /// any time.
  [[nodiscard]] std::filesystem::path ClockOffset() const { return Control() / "clock-offset"; }
  /// There as long as the cloud has the board.
  [[nodiscard]] std::filesystem::path Joined() const { return Control() / "joined"; }
  /// The certificates that a board with a cloud trusts.
  [[nodiscard]] std::filesystem::path TrustedCertificates() const { return Etc() / "ssl-certs"; }
  /// Answers of the i2cdetect stand-in.
  [[nodiscard]] std::filesystem::path I2c() const { return Control() / "i2c"; }
  [[nodiscard]] std::filesystem::path DaemonLog() const {
    return Home() / "printer_data/logs/varnel.log";
  }

 private:
  std::filesystem::path root_;
};

/// Paths inside every board.
namespace inside {
constexpr const char* kControl = "/run/varnel-board";
constexpr const char* kControlSocket = "/run/varnel-board/control";
constexpr const char* kServices = "/run/varnel-board/services.json";
constexpr const char* kBrokerSocket = "/run/varnel-board/mosquitto.sock";
constexpr const char* kLog = "/var/log";
constexpr const char* kTools = "/opt/varnel/board";
constexpr const char* kNpuLibraries = "/opt/varnel/board/npu";
constexpr const char* kClock = "/opt/varnel/board/varnel-virtual-clock.so";
constexpr const char* kUplink = "/opt/varnel/board/varnel-uplink";
constexpr const char* kWire = "/opt/varnel/wire";
constexpr const char* kJoined = "/run/varnel-board/joined";
constexpr const char* kDaemon = "/opt/varnel/bin/varnel";
constexpr const char* kUpgradeScript = "/opt/varnel/board/upgrade/systemUpgrade.sh";
constexpr const char* kStandIns = "/opt/varnel/board/wifi";
constexpr const char* kBrokerConfig = "/etc/mosquitto.conf";
}  // namespace inside

}  // namespace varnel::board
