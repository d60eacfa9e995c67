#include "virtual_board/launcher/sandbox.h"

#include "virtual_board/cloud/cloud_files.h"
#include "virtual_board/launcher/prepare.h"

namespace varnel::board {

namespace fs = std::filesystem;

namespace {

class Command {
 public:
  Command& Add(std::initializer_list<std::string> words) {
    words_.insert(words_.end(), words);
    return *this;
  }
  Command& Bind(const fs::path& host, const std::string& path) {
    return Add({"--bind", host.string(), path});
  }
  Command& BindReadOnly(const fs::path& host, const std::string& path) {
    return Add({"--ro-bind", host.string(), path});
  }
  std::vector<std::string> Take() { return std::move(words_); }

 private:
  std::vector<std::string> words_;
};

void AddIsolation(Command& command, const BootOptions& options) {
  // With both ids given there is one user namespace, which later programs can enter.
  command.Add({"bwrap", "--unshare-all", "--uid", "0", "--gid", "0", "--cap-add", "ALL",
               "--clearenv", "--new-session", "--as-pid-1", "--hostname", "board", "--chdir", "/"});
  if (options.foreground) command.Add({"--die-with-parent"});
  for (const auto& [name, value] : BoardEnvironment(options)) {
    command.Add({"--setenv", name, value});
  }
}

void AddSystem(Command& command) {
  command.BindReadOnly("/usr", "/usr").Add({"--symlink", "usr/bin", "/bin"});
  command.Add({"--symlink", "usr/sbin", "/sbin", "--symlink", "usr/lib", "/lib"});
  command.Add({"--symlink", "usr/lib64", "/lib64", "--proc", "/proc", "--dev", "/dev"});
  command.Add({"--dir", "/root", "--dir", "/var/tmp", "--tmpfs", "/mnt"});
  for (const char* shared : {"/etc/alternatives", "/etc/ssl/openssl.cnf", "/etc/ld.so.cache"}) {
    command.Add({"--ro-bind-try", shared, shared});
  }
}

/// The network of a board with a cloud: its own names and name server, and nobody else is trusted.
void AddNetwork(Command& command, const BootOptions& options, const Layout& layout) {
  if (options.cloud.empty()) {
    command.Add({"--ro-bind-try", "/etc/ssl/certs", "/etc/ssl/certs"});
    command.BindReadOnly(layout.Etc() / "hosts", "/etc/hosts");
    return;
  }
  command.BindReadOnly(layout.TrustedCertificates(), "/etc/ssl/certs");
  command.BindReadOnly(layout.Etc() / "resolv.conf", "/etc/resolv.conf");
  command.Bind(layout.Etc() / "hosts", "/etc/hosts");
  command.Bind(CloudFiles(options.cloud).Wire(), inside::kWire);
}

void AddDirectories(Command& command, const Layout& layout) {
  command.Bind(layout.Userdata(), "/userdata")
      .Bind(layout.Home(), "/home/ruxo")
      .Bind(layout.Oem(), "/oem")
      .Bind(layout.EtcVarnel(), "/etc/varnel")
      .Bind(layout.Tmp(), "/tmp")
      .Bind(layout.Run(), "/run")
      .Bind(layout.Sys(), "/sys")
      .Bind(layout.Log(), inside::kLog)
      .Bind(layout.Collection(), "/etc/collection")
      .Bind(layout.Etc() / "mosquitto.d", "/etc/mosquitto.d");
}

void AddFiles(Command& command, const Layout& layout) {
  for (const char* name : {"passwd", "group", "nsswitch.conf", "mosquitto.conf"}) {
    command.BindReadOnly(layout.Etc() / name, std::string("/etc/") + name);
  }
  for (const char* name : {"VERSION", "FULLVERSION"}) {
    command.Bind(layout.Etc() / name, std::string("/etc/") + name);
  }
  for (const char* name : {"cpuinfo", "uptime"}) {
    command.Bind(layout.Proc() / name, std::string("/proc/") + name);
  }
  for (const char* name : {"mmcblk0", "video11", "video18"}) {
    command.Bind(layout.Dev() / name, std::string("/dev/") + name);
  }
}

void AddDevices(Command& command, const BootOptions& options, const fs::path& tools) {
  command.Add({"--tmpfs", VARNEL_PLUGIN_DIRECTORY});
  command.BindReadOnly(tools / "varnel-virtual-camera.so",
                       VARNEL_PLUGIN_DIRECTORY "/varnel-virtual-camera.so");
  // Without a stand-in the real i2cdetect finds no bus and fails, which stands for a MIPI sensor.
  if (options.camera == CameraKind::kUsb) {
    command.BindReadOnly(tools / "i2cdetect", "/usr/sbin/i2cdetect");
  }
}

void AddPrograms(Command& command, const BootOptions& options, const fs::path& tools) {
  command.BindReadOnly(tools, inside::kTools);
  if (!options.daemon.empty()) {
    command.BindReadOnly(fs::absolute(options.daemon), inside::kDaemon);
  }
  for (const auto& [host, path] : options.binds) command.Bind(host, path);
}

}  // namespace

std::vector<std::string> SandboxCommand(const BootOptions& options, const Layout& layout,
                                        const fs::path& tools) {
  Command command;
  AddIsolation(command, options);
  AddSystem(command);
  AddDirectories(command, layout);
  AddFiles(command, layout);
  AddNetwork(command, options, layout);
  AddDevices(command, options, tools);
  AddPrograms(command, options, tools);
  command.Add({"--", std::string(inside::kTools) + "/varnel-board", "init"});
  return command.Take();
}

}  // namespace varnel::board
