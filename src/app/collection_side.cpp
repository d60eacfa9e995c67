#include "app/collection_side.h"

#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "app/cloud_side.h"
#include "utils/atomic_file.h"

namespace varnel::app {
namespace {

constexpr const char* kClientKey = "/home/ruxo/printer_data/certs/client.key";
constexpr size_t kKeyBytes = 65'536;

/// Everything that this process knows and nobody else is to see.
std::shared_ptr<const service::HeldValues> HeldBy(const CollectionSide& side) {
  auto held = std::make_shared<service::HeldValues>();
  const auto add = [&held](std::string_view secret) { held->Add(secret); };
  add(side.system.Identity()->device_key.Text());
  side.cloud.ForEachSecret(add);
  side.for_each_secret(add);
  if (auto key = utils::ReadSmallFile(kClientKey, kKeyBytes)) {
    held->Add(*key);
    utils::Wipe(*key);
  }
  return held;
}

service::NetworkTargets TargetsOf(const utils::Deployment& deployment) {
  const utils::CloudDeployment& cloud = deployment.cloud;
  return {
      .dns_server = deployment.diagnostics.dns_server,
      .account_host = cloud.default_region == "cn" ? cloud.cn_account_host : cloud.int_account_host,
      .api_host = cloud.cn_api_host,
      .store_hosts = deployment.diagnostics.store_hosts};
}

}  // namespace

service::LogCollectionSetup CollectionSetupOf(const CollectionSide& side,
                                              const utils::Deployment& deployment,
                                              const std::filesystem::path& storage,
                                              const std::filesystem::path& detection_results) {
  service::LogCollectionSetup setup;
  setup.comms = &side.comms;
  setup.paths = &side.paths;
  setup.uploader = MakeUploader(side.cloud);
  service::CollectorSetup& collector = setup.collector;
  if (!storage.empty()) collector.storage = storage;
  if (!detection_results.empty()) collector.detection_results = detection_results;
  collector.min_free_bytes = uint64_t{deployment.min_free_space_mib} << 20U;
  collector.targets = TargetsOf(deployment);
  collector.makers_items = deployment.diagnostics.items;
  collector.desk = &side.desk;
  collector.identity = [&system = side.system] { return system.Identity(); };
  collector.held = [side] { return HeldBy(side); };
  collector.platform_data = [&system = side.system](uint32_t type, const std::string& directory) {
    return system.CollectPlatformData(type, directory);
  };
  return setup;
}

}  // namespace varnel::app
