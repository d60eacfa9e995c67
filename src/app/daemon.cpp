#include "app/daemon.h"

#include <unistd.h>

#include <future>
#include <memory>
#include <stdexcept>
#include <utility>

#include "app/cloud_side.h"
#include "app/collection_side.h"
#include "app/environment_check.h"
#include "app/print_analysis.h"
#include "app/signal_handling.h"
#include "comms/comms_manager.h"
#include "hal_adapter/ai_adapter.h"
#include "hal_adapter/hal_event.h"
#include "hal_adapter/multimedia_adapter.h"
#include "hal_adapter/storage_adapter.h"
#include "hal_adapter/system_adapter.h"
#include "hal_interface/hal_register.h"
#include "hal_interface/platform_init.h"
#include "service/camera/camera_service.h"
#include "service/cloud/http/curl_transfer.h"
#include "service/system/date_record.h"
#include "service/system/device_info_service.h"
#include "service/system/export/log_export.h"
#include "service/system/upgrade/upgrade_manager.h"
#include "utils/child_registry.h"
#include "utils/client_path.h"
#include "utils/deployment.h"
#include "utils/free_space.h"
#include "utils/log.h"
#include "utils/log_text.h"
#include "utils/logger.h"
#include "utils/reported_drives.h"
#include "utils/temporary_name.h"
#include "utils/thread.h"
#include "utils/thread_pool.h"

namespace varnel::app {
namespace {

constexpr const char* kTag = "MAIN";
constexpr const char* kLoggerName = "varnel";
constexpr const char* kLogFileName = "varnel.log";
constexpr size_t kLogFileMb = 10;
constexpr size_t kLogFiles = 5;
constexpr std::chrono::seconds kFlushPeriod{10};
/// With the supervisor's look at the flag every half second, a shutdown stays below four.
constexpr std::chrono::milliseconds kStopLimit{3000};

std::shared_ptr<utils::Logger> StartLogging(LogTarget target,
                                            const std::filesystem::path& directory) {
  std::shared_ptr<utils::Logger> logger;
  if (target == LogTarget::kConsole) {
    VLOG_INFO(kTag, "Output logs to console");
  } else {
    logger = std::make_shared<utils::Logger>(kLoggerName, (directory / kLogFileName).string(),
                                             kLogFileMb, kLogFiles);
  }
  spdlog::set_level(spdlog::level::info);
  spdlog::flush_every(kFlushPeriod);
  spdlog::default_logger()->flush();
  return logger;
}

utils::SpaceCheck SpaceCheckOf(const utils::Deployment& deployment) {
  const uint64_t min_mib = deployment.min_free_space_mib;
  return [min_mib](const std::filesystem::path& destination) {
    if (utils::EnoughFreeSpace(destination.parent_path(), min_mib << 20)) return true;
    VLOG_ERROR(kTag, "Less than {} MiB free in {}, nothing is written there", min_mib,
               utils::LogText(destination.parent_path().string()));
    return false;
  };
}

hal_adapter::AreaInit SystemInitOf(const utils::Deployment& deployment, service::SourceDesk& desk) {
  platform::SystemSettings settings;
  settings.identity_device = deployment.identity_device;
  settings.identity_offset = deployment.identity_offset;
  settings.identity_key_file = deployment.identity_key_file;
  settings.has_space = SpaceCheckOf(deployment);
  settings.copy_source = [&desk](const std::string& source, const std::string& name) {
    return desk.CopyOf(source, name);
  };
  return [settings] { return platform::platform_system_init(settings); };
}

/// The hardware side, started in the order in which its areas depend on each other. A missing
/// camera or identity is logged and does not keep the services from starting.
struct Hardware {
  explicit Hardware(const utils::Deployment& deployment)
      : system(SystemInitOf(deployment, source_desk)),
        multimedia(
            {.init = platform::platform_multimedia_init, .has_space = SpaceCheckOf(deployment)}),
        storage(platform::platform_storage_init),
        ai(platform::platform_ai_init) {}

  void Start() {
    (void)hal_adapter::HALEvent::Instance();
    // What is missing is in the log, and does not stop the start.
    (void)system.Start();
    (void)multimedia.Start();
    (void)storage.Start();
    (void)ai.Start();
  }

  service::SourceDesk source_desk;  ///< the system area asks it for what it archives
  hal_adapter::SystemAdapter system;
  hal_adapter::MultimediaAdapter multimedia;
  hal_adapter::StorageAdapter storage;
  hal_adapter::AiAdapter ai;
};

/// Where we write ourselves, as those say who do it.
std::vector<std::filesystem::path> OwnPlaces(const DaemonPaths& paths, const Hardware& hardware) {
  const hal_adapter::IdentityFiles identity;
  const service::TimelapsePaths timelapse;
  const service::MonitorPaths monitor;
  std::vector<std::filesystem::path> places = {
      paths.log_directory,
      identity.serial_number,
      identity.product_code,
      identity.version,
      identity.full_version,
      hal_adapter::PhotoPaths().raw_frame,
      hardware.storage.Paths().config_save,
      hardware.ai.DetectResultDir(),
      service::AnalysisSetup().results,
      service::CameraService::Setup().detection_picture,
      timelapse.root,
      timelapse.web,
      timelapse.upload,
      // What the cloud gave and knows, packages on their way, diagnosis.
      "/home/ruxo/printer_data/certs",
      "/home/ruxo/printer_data/mqtt",
      "/userdata/.tmp_*",
      monitor.snapshot,
      monitor.encrypted,
      "/tmp/aes_key.txt",
  };
  for (std::filesystem::path& place : platform::platform_places())
    places.push_back(std::move(place));
  return places;
}

utils::ClientPathRules PathRulesOf(std::vector<std::filesystem::path> allowed,
                                   const DaemonPaths& paths, const Hardware& hardware) {
  utils::ClientPathRules rules;
  rules.own_places = OwnPlaces(paths, hardware);
  rules.allowed = std::move(allowed);
  return rules;
}

service::UpgradeSetup UpgradeSetupOf(comms::CommsManager& comms, Hardware& hardware,
                                     service::CloudManager& cloud,
                                     const utils::ClientPathPolicy& packages,
                                     const utils::Deployment& deployment) {
  service::UpgradeSetup setup;
  setup.comms = &comms;
  if (const auto& storage = hardware.storage.Paths().user_data; !storage.empty())
    setup.storage = storage;
  setup.key_file = deployment.firmware_key_file;
  setup.min_free_bytes = uint64_t{deployment.min_free_space_mib} << 20U;
  setup.local_fullversion = [&hardware] { return hardware.system.FullFirmwareVersionNow(); };
  setup.is_connected = [&cloud] { return cloud.IsConnected(); };
  setup.ask_record = [&cloud] { return cloud.FirmwareRecord(); };
  setup.take_turn = [&cloud] { return cloud.TakeTurn(); };
  setup.upgrade = [&hardware](const std::string& package) {
    constexpr uint32_t kMainTarget = 0;
    return hardware.system.UpgradeFirmware(kMainTarget, package);
  };
  setup.resolve = [&packages](const std::string& path) {
    const auto place = packages.Resolve(path);
    return place ? std::optional(place->Path()) : std::nullopt;
  };
  return setup;
}

/// What an earlier run that was ended half-way left beside files of clients and of ours.
void RemoveOldLeftovers(const utils::Deployment& deployment, const Hardware& hardware) {
  for (const auto& directory : deployment.client_write_directories)
    utils::RemoveLeftovers(directory);
  utils::RemoveLeftovers(hal_adapter::PhotoPaths().workshop);
  utils::RemoveLeftovers(hardware.storage.Paths().config_save);
}

/// USB drives, plugged in before or from now on, are open to files that clients ask for. One after
/// another on a thread of its own: a drive that is slow or dying must not hold up other events.
class DriveGate {
 public:
  explicit DriveGate(std::shared_ptr<utils::ReportedDrives> drives) : drives_(std::move(drives)) {}

  void Start() {
    for (const auto type : {hal_adapter::HAL_EVENT_SYS_USB_DRIVE_INSERT,
                            hal_adapter::HAL_EVENT_SYS_USB_DRIVE_PRESENT}) {
      // It refuses no function that there is.
      (void)hal_adapter::register_hal_event_callback(type, Report, this);
    }
  }
  /// Returns when those that were reported so far are open.
  void Settle() {
    thread_.Post([] {}).wait();
  }

 private:
  static void Report(const hal_adapter::HalEventRecord* event, void* gate) {
    static_cast<DriveGate*>(gate)->Open(event->payload);
  }
  void Open(const std::filesystem::path& directory) {
    thread_.Post([this, directory] {
      utils::RemoveLeftovers(directory);
      drives_->Add(directory);
    });
  }

  const std::shared_ptr<utils::ReportedDrives> drives_;
  utils::ThreadPool thread_{1, "drives", kTag};
};

service::TimelapsePaths PathsOf(const utils::Deployment& deployment) {
  service::TimelapsePaths paths;
  paths.min_free_bytes = uint64_t{deployment.min_free_space_mib} << 20U;
  return paths;
}

service::LogExportSetup ExportSetupOf(comms::CommsManager& comms,
                                      service::LogCollectionManager& collection, DriveGate& gate,
                                      const utils::Deployment& deployment) {
  service::LogExportSetup setup;
  setup.collection = &collection;
  setup.encrypt = deployment.diagnostics.encrypt_exports;
  setup.notify = [&comms](const std::string& method, nlohmann::json params) {
    return comms.SendNotification("system/notification", method, std::move(params));
  };
  setup.settle = [&gate] { gate.Settle(); };
  return setup;
}

service::MonitorEncryptionSettings EncryptionOf(const utils::MonitorDeployment& deployment) {
  service::MonitorEncryptionSettings settings;
  settings.fixed_password = deployment.fixed_password;
  settings.iterations = static_cast<uint32_t>(deployment.iterations);
  return settings;
}

/// The services, in their start order. The object lives until the process ends: their threads are
/// not joined.
class Services {
 public:
  Services(comms::CommsManager& comms, Hardware& hardware,
           const utils::ClientPathPolicy& client_paths, const utils::ClientPathPolicy& packages,
           DriveGate& gate, const utils::Deployment& deployment)
      : cloud_(MakeCloudManager(comms, hardware.system.Identity(), deployment.cloud)),
        date_record_(hardware.storage.Paths().config_save),
        device_info_(comms, [&hardware] { return hardware.system.Identity(); }),
        collection_(CollectionSetupOf(
            {comms, hardware.system, *cloud_, client_paths, hardware.source_desk,
             [this](const auto& visit) { camera_.ForEachSecret(visit); }},
            deployment, hardware.storage.Paths().user_data, hardware.ai.DetectResultDir())),
        export_(ExportSetupOf(comms, collection_, gate, deployment)),
        upgrade_(UpgradeSetupOf(comms, hardware, *cloud_, packages, deployment)),
        analysis_(hardware.ai.DetectResultDir(), SpaceCheckOf(deployment)),
        camera_(comms, {.camera = &hardware.multimedia,
                        .paths = &client_paths,
                        .timelapse_paths = PathsOf(deployment),
                        .analyser = &analysis_,
                        .monitor_encryption = EncryptionOf(deployment.monitor),
                        .uploader = MakeUploader(*cloud_),
                        .serial_number = [&hardware] {
                          return hardware.system.Identity()->serial_number;
                        }}) {}

  void Start() {
    cloud_->Start();
    date_record_.Start();
    if (device_info_.Start() != comms::CommsStatus::kOk)
      VLOG_ERROR(kTag, "The device information service did not start");
    if (collection_.Start() != comms::CommsStatus::kOk)
      VLOG_ERROR(kTag, "The log collection manager did not start");
    export_.Start();
    if (upgrade_.Start() != comms::CommsStatus::kOk)
      VLOG_ERROR(kTag, "The upgrade manager did not start");
    upgrade_.StartCheckRemoteFirmware();
    if (camera_.Start() != comms::CommsStatus::kOk)
      VLOG_ERROR(kTag, "The camera service did not start");
  }
  service::CloudManager& Cloud() { return *cloud_; }
  service::CameraService& Camera() { return camera_; }
  /// When no child runs any more.
  void Abandon() { collection_.Abandon(); }

 private:
  const std::unique_ptr<service::CloudManager> cloud_;
  service::DateRecord date_record_;
  service::DeviceInfoService device_info_;
  service::LogCollectionManager collection_;
  service::LogExport export_;
  service::UpgradeManager upgrade_;
  PrintAnalysis analysis_;
  service::CameraService camera_;
};

/// The process leaves soon afterwards: a library that hangs, in a name server's silence for
/// example, is left behind.
void StopWithin(std::chrono::milliseconds limit, comms::CommsManager& comms,
                service::CloudManager& cloud) try {
  cloud.RequestStop();  // its end need not wait for that of the brokers
  auto done = std::make_shared<std::promise<void>>();
  const std::future<void> stopped = done->get_future();
  utils::SpawnGuarded("comms-stop", kTag, [&comms, &cloud, done] {
    comms.Stop();
    cloud.Stop();
    done->set_value();
  }).detach();
  if (stopped.wait_for(limit) != std::future_status::ready)
    VLOG_WARN(kTag, "the links do not end, leaving without them");
} catch (const std::exception& error) {
  VLOG_ERROR(kTag, "the links cannot be ended: {}", error.what());
}

void Run(LogTarget log_target, const DaemonPaths& paths, const LocalBroker& broker) {
  // Whatever is made here is never taken apart: the process leaves by _exit, with service threads
  // still running.
  service::InitCurl();  // before there is a second thread
  static std::shared_ptr<utils::Logger> logger;
  logger = StartLogging(log_target, paths.log_directory);
  VLOG_INFO(kTag, "Start Varnel Service ...");
  RemoveOldLogs(paths.log_directory);
  CheckSystemPrograms(paths.program_locator, paths.programs);
  LogUptime(paths.uptime);
  const utils::Deployment deployment = utils::LoadDeployment(paths.deployment);

  const auto drives = std::make_shared<utils::ReportedDrives>();
  static auto* const gate = new DriveGate(drives);
  gate->Start();
  auto* hardware = new Hardware(deployment);
  hardware->Start();
  auto* client_paths = new utils::ClientPathPolicy(
      PathRulesOf(deployment.client_write_directories, paths, *hardware), drives);
  // A firmware package may lie wherever nothing of ours and of the system's does.
  auto* packages = new utils::ClientPathPolicy(PathRulesOf({"/"}, paths, *hardware), drives);
  RemoveOldLeftovers(deployment, *hardware);
  comms::CommsManager& comms = comms::CommsManager::Instance();
  comms.SetSerialNumberProvider([hardware] { return hardware->system.Identity()->serial_number; });
  if (comms.InitLocal() != comms::CommsStatus::kOk)
    throw std::runtime_error("the communication manager did not start");
  auto* services = new Services(comms, *hardware, *client_paths, *packages, *gate, deployment);
  services->Start();

  Supervisor supervisor(comms, [] { return shutdown_requested != 0; });
  supervisor.ConnectLocal(broker);
  supervisor.Run();

  VLOG_INFO(kTag, "Shutdown requested, stopping services...");
  services->Camera().RequestEnd();
  StopWithin(kStopLimit, comms, services->Cloud());
  utils::EndChildren();
  services->Camera().ClearPictures();
  services->Abandon();
  utils::RemoveLeftovers(hal_adapter::PhotoPaths().workshop, utils::Leftovers::kAll);
  VLOG_INFO(kTag, "Shutdown complete");
  spdlog::default_logger()->flush();
}

/// Programs that still run for threads that are not joined end with the process.
[[noreturn]] void Leave(int status) {
  utils::EndChildren();
  _exit(status);
}

/// Ends the process after an exception; without a logger that takes errors there is nobody to tell.
[[noreturn]] void FailWith(const char* reason) {
  VLOG_ERROR(kTag, "main exception: {}", reason);
  spdlog::default_logger()->flush();
  Leave(1);
}

}  // namespace

void RunDaemon(LogTarget log_target, const DaemonPaths& paths, const LocalBroker& broker) {
  try {
    Run(log_target, paths, broker);
  } catch (const std::exception& error) {
    FailWith(error.what());
  } catch (...) {
    FailWith("unknown");
  }
  Leave(0);
}

}  // namespace varnel::app
