#include "app/cloud_side.h"

#include <nlohmann/json.hpp>

#include "service/agent/auth/aes.h"
#include "service/cloud/upload/cloud_upload.h"

namespace varnel::app {
namespace {

service::CloudPlaces PlacesOf(const utils::CloudDeployment& deployment) {
  service::CloudPlaces places;
  places.regions["int"] = {deployment.int_api_host, deployment.int_account_host};
  places.regions["cn"] = {deployment.cn_api_host, deployment.cn_account_host};
  places.default_region = deployment.default_region;
  places.local_server = deployment.local_server;
  return places;
}

}  // namespace

std::unique_ptr<service::CloudManager> MakeCloudManager(
    comms::CommsManager& comms, const std::shared_ptr<const hal_adapter::DeviceIdentity>& identity,
    const utils::CloudDeployment& deployment) {
  service::CloudSetup setup;
  setup.comms = &comms;
  // Without a readable identity block the platform says "--", which is nobody's.
  if (identity->serial_number != "--") setup.serial_number = identity->serial_number;
  setup.private_key = {identity, &identity->device_key};
  setup.firmware_version = identity->firmware_version;
  setup.places = PlacesOf(deployment);
  setup.country_code_path = deployment.country_code_path;
  setup.client_log_path = deployment.client_log_path;
  setup.credential_key = {service::LoadAesKey(deployment.credential_key_file),
                          deployment.allow_clear_credentials};
  setup.disconnected_code = static_cast<int>(deployment.disconnected_code);
  return std::make_unique<service::CloudManager>(std::move(setup));
}

std::unique_ptr<service::FileUploader> MakeUploader(service::CloudManager& cloud) {
  service::CloudAccess& access = cloud.Access();
  service::UploadApi api;
  api.has_access = [&access] { return access.GetAccess() == 0; };
  api.server = [&access] { return access.Server(); };
  api.hold = [&cloud] { return cloud.HoldTransfer(); };
  api.post = [&access](const std::string& path, const nlohmann::json& document,
                       const service::RequestOptions& options) {
    return access.Post(path, document, options);
  };
  return std::make_unique<service::CloudUpload>(std::move(api), cloud.StopOfTransfers());
}

}  // namespace varnel::app
