#include "virtual_board/launcher/join_cloud.h"

#include <nlohmann/json.hpp>
#include <stdexcept>

#include "virtual_board/cloud/cloud_files.h"
#include "virtual_board/common/files.h"
#include "virtual_board/identity/block.h"
#include "virtual_board/identity/device_key.h"
#include "virtual_board/launcher/control.h"

namespace varnel::board {

namespace fs = std::filesystem;
using nlohmann::json;

namespace {

void Write(const fs::path& path, const std::string& content) {
  if (!ReplaceFile(path, content)) throw std::runtime_error("cannot write " + path.string());
}

json ReadJson(const fs::path& file) {
  json document = json::parse(ReadFile(file), nullptr, false);
  return document.is_object() ? document : json::object();
}

std::string Register(const CloudFiles& cloud, const Layout& layout) {
  const json identity =
      json::parse(ReadClearIdentityBlock(layout.Dev() / "mmcblk0"), nullptr, false);
  std::string name = identity.is_object() ? identity.value("SerialNumber", "") : "";
  if (name.empty()) return layout.Root().filename();
  if (identity.contains("PrivateKey")) {
    Write(cloud.DeviceKey(name), PublicKeyPem(identity.at("PrivateKey")));
  }
  return name;
}

void WriteNames(const json& description, const Layout& layout) {
  Write(layout.Etc() / "hosts", description.at("hosts_file"));
  Write(layout.Etc() / "resolv.conf", "nameserver " + description.value("name_server", "") + "\n");
}

void WriteTrust(const json& description, const CloudFiles& cloud, const Layout& layout) {
  fs::create_directories(layout.TrustedCertificates());
  Write(layout.TrustedCertificates() / "ca-certificates.crt",
        ReadFile(cloud.Root() / description.at("root_ca")));
  const fs::path key = layout.EtcVarnel() / "cloud.key";
  Write(key, ReadFile(cloud.Root() / description.at("credential_key")));
  fs::permissions(key, fs::perms::owner_read | fs::perms::owner_write);
}

}  // namespace

std::string JoinCloud(const fs::path& directory, const Layout& layout) {
  const CloudFiles cloud(directory);
  if (!ControlClient(cloud).Connected()) {
    throw std::runtime_error("no cloud runs in " + cloud.Root().string() +
                             " (start one: varnel-board cloud DIR)");
  }
  const json description = ReadJson(cloud.Description());
  WriteNames(description, layout);
  WriteTrust(description, cloud, layout);
  json deployment = ReadJson(layout.EtcVarnel() / "deployment.json");
  deployment["cloud"].merge_patch(description.at("deployment"));
  Write(layout.EtcVarnel() / "deployment.json", deployment.dump(2) + "\n");
  return Register(cloud, layout);
}

}  // namespace varnel::board
