#include "virtual_board/launcher/prepare.h"

#include <nlohmann/json.hpp>
#include <stdexcept>

#include "virtual_board/common/files.h"
#include "virtual_board/identity/new_board.h"
#include "virtual_board/launcher/join_cloud.h"

namespace varnel::board {

namespace fs = std::filesystem;
using nlohmann::json;

namespace {

constexpr const char* kBrokerConfiguration =
    "user root\n"
    "persistence false\n"
    "allow_anonymous true\n"
    "set_tcp_nodelay true\n"
    "log_dest stderr\n"
    "log_type error\n"
    "log_type warning\n"
    "log_type notice\n"
    "listener 1883 127.0.0.1\n"
    "listener 0 /run/varnel-board/mosquitto.sock\n"
    "include_dir /etc/mosquitto.d\n";

constexpr const char* kUptime = "41.75 160.20\n";

/// Address 0x37 answers and no driver holds it, so the sensor on that bus is not a MIPI camera's.
constexpr const char* kFreeI2cAddress =
    "     0  1  2  3  4  5  6  7  8  9  a  b  c  d  e  f\n"
    "30:                      37                        \n";

void Write(const fs::path& path, const std::string& content) {
  if (!ReplaceFile(path, content)) throw std::runtime_error("cannot write " + path.string());
}

void WriteOnce(const fs::path& path, const std::string& content) {
  if (!fs::exists(path)) Write(path, content);
}

void MakeDirectories(const Layout& layout) {
  for (const fs::path& directory :
       {layout.Userdata(), layout.DaemonLog().parent_path(), layout.Oem() / "printer_data",
        layout.EtcVarnel(), layout.Tmp(), layout.Run() / "udev", layout.Sys(),
        layout.Etc() / "mosquitto.d", layout.Proc(), layout.Dev(), layout.Log(), layout.I2c(),
        layout.Camera() / "frames", layout.Npu(), layout.Networks(), layout.Upgrade(),
        layout.Collection(), layout.Home() / "bin"}) {
    fs::create_directories(directory);
  }
}

void WriteSystemFiles(const Layout& layout) {
  Write(layout.Etc() / "passwd", "root:x:0:0:root:/root:/bin/sh\n");
  Write(layout.Etc() / "group", "root:x:0:\n");
  Write(layout.Etc() / "hosts", "127.0.0.1 localhost\n");
  Write(layout.Etc() / "nsswitch.conf", "passwd: files\ngroup: files\nhosts: files dns\n");
  Write(layout.Etc() / "mosquitto.conf", kBrokerConfiguration);
  WriteOnce(layout.Proc() / "uptime", kUptime);
  // Without it libudev takes it that nobody sends device messages.
  WriteOnce(layout.Run() / "udev/control", "");
  for (const char* camera : {"video11", "video18"}) WriteOnce(layout.Dev() / camera, "");
}

/// A new board shows the test chart; frames that somebody put there stay.
void PlaceFrames(const Layout& layout, const fs::path& tools) {
  const fs::path frames = layout.Camera() / "frames";
  if (!fs::is_empty(frames)) return;
  for (const char* name : {"chart.nv12", "chart.yuyv"}) {
    fs::copy_file(tools / "chart" / name, frames / name);
  }
}

/// Networks that somebody put there stay.
void PlaceNetworks(const Layout& layout, const fs::path& tools) {
  for (const char* name : {"print_check.fp.rknn", "bed_check.fp.rknn", "noodle_verify.fp.rknn"}) {
    const fs::path network = tools / "npu/model" / name;
    if (fs::exists(network)) {
      fs::copy_file(network, layout.Networks() / name, fs::copy_options::skip_existing);
    }
  }
}

/// With the private key, which is on no board, archives of this one are opened.
void PlaceCollectionKeys(const Layout& layout, const fs::path& tools) {
  const auto options = fs::copy_options::overwrite_existing;
  fs::copy_file(tools / "collection/public_key.pem", layout.Collection() / "public_key.pem",
                options);
  fs::copy_file(tools / "collection/private_key.pem", layout.CollectionKey(), options);
}

/// A script that somebody put there stays.
void PlaceUpgradeScript(const Layout& layout) {
  const fs::path script = layout.Home() / "bin/systemUpgrade.sh";
  if (!fs::exists(fs::symlink_status(script))) fs::create_symlink(inside::kUpgradeScript, script);
}

/// By its driver the daemon knows that there is an NPU.
void PlaceNpuDriver(const BootOptions& options, const Layout& layout) {
  const fs::path node = layout.Sys() / "class/drm/renderD128";
  fs::remove_all(node);
  if (!options.npu) return;
  fs::create_directories(node / "device");
  Write(node / "device/uevent", "DRIVER=RKNPU\n");
}

void ForgetLastBoot(const Layout& layout) {
  for (const fs::path& file :
       {layout.BrokerSocket(), layout.Control() / "control", layout.Joined(), layout.ClockOffset(),
        layout.Camera() / "journal", layout.Camera() / "faults", layout.Npu() / "faults",
        layout.Npu() / "state.json"}) {
    fs::remove(file);
  }
}

json Service(const char* name, const std::vector<std::string>& command, bool start) {
  return {{"name", name}, {"command", command}, {"start", start}};
}

/// Variables of the daemon alone.
json DaemonEnvironment(const BootOptions& options) {
  json environment = json::object();
  if (!options.clock) return environment;
  environment["LD_PRELOAD"] = inside::kClock;
  // The clock comes before the sanitizer's library, which else refuses to run.
  const auto settings = options.environment.find("ASAN_OPTIONS");
  environment["ASAN_OPTIONS"] =
      (settings == options.environment.end() ? "" : settings->second + ":") +
      "verify_asan_link_order=0";
  return environment;
}

/// @param device the board's name in the cloud; empty without one
void WriteServices(const BootOptions& options, const Layout& layout, const std::string& device) {
  json services = json::array();
  if (!device.empty()) services.push_back(Service("uplink", {inside::kUplink, device}, true));
  services.push_back(Service("broker", {"/usr/sbin/mosquitto", "-c", inside::kBrokerConfig},
                             options.start_broker));
  if (!options.daemon.empty()) {
    services.push_back(Service("daemon", {inside::kDaemon}, options.start_daemon));
    services.back()["environment"] = DaemonEnvironment(options);
  }
  const json all = {{"environment", BoardEnvironment(options)}, {"services", services}};
  Write(layout.Services(), all.dump(2) + "\n");
}

}  // namespace

std::map<std::string, std::string> BoardEnvironment(const BootOptions& options) {
  std::map<std::string, std::string> environment = options.environment;
  environment.insert(
      {{"PATH", "/usr/sbin:/usr/bin:/sbin:/bin:/opt/varnel/board"},
       {"HOME", "/root"},
       {"LANG", "C.UTF-8"},
       // Device messages of the board come without a device behind them in the kernel.
       {"SYSTEMD_DEVICE_VERIFY_SYSFS", "0"}});
  // The daemon looks for the runtime by its plain name.
  if (options.npu) environment.insert({"LD_LIBRARY_PATH", inside::kNpuLibraries});
  return environment;
}

void PrepareBoard(const BootOptions& options, const Layout& layout, const fs::path& tools) {
  MakeDirectories(layout);
  ForgetLastBoot(layout);
  WriteSystemFiles(layout);
  WriteIdentityFiles(layout, options.device_key);
  PlaceFrames(layout, tools);
  PlaceNetworks(layout, tools);
  PlaceNpuDriver(options, layout);
  PlaceUpgradeScript(layout);
  PlaceCollectionKeys(layout, tools);
  WriteOnce(layout.I2c() / "answer", kFreeI2cAddress);
  const std::string device = options.cloud.empty() ? "" : JoinCloud(options.cloud, layout);
  WriteServices(options, layout, device);
}

}  // namespace varnel::board
