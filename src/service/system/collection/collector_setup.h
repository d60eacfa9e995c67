#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "hal_adapter/system_adapter.h"
#include "hal_interface/hal_status.h"
#include "service/system/collection/collection_item.h"
#include "service/system/collection/scrub/held_values.h"
#include "service/system/collection/source_desk.h"
#include "utils/board_places.h"
#include "utils/clock.h"

namespace varnel::service {

/// What collections are made with; what it refers to outlives them.
struct CollectorSetup {
  std::filesystem::path storage = "/userdata";  ///< holds the working directory
  std::filesystem::path public_key = "/etc/collection/public_key.pem";
  /// There while one command reads it.
  std::filesystem::path password_file = "/tmp/aes_key.txt";
  std::filesystem::path detection_results = utils::board::kDetectionResults;
  std::string tar = utils::board::kTar;
  std::string openssl = "/usr/bin/openssl";
  std::vector<std::filesystem::path> program_directories = {"/usr/bin", "/usr/sbin", "/bin",
                                                            "/sbin"};
  uint64_t min_free_bytes = 0;
  NetworkTargets targets{};
  nlohmann::json makers_items = nlohmann::json::array();  ///< see MakersItems()
  std::function<std::shared_ptr<const hal_adapter::DeviceIdentity>()> identity{};
  /// The secrets of this moment. Never null.
  std::function<std::shared_ptr<const HeldValues>()> held = [] {
    return std::make_shared<const HeldValues>();
  };
  /// Archives the data of one type into a directory, through the desk.
  std::function<hal_adapter::HalStatus(uint32_t type, const std::string& directory)>
      platform_data{};
  SourceDesk* desk = nullptr;
  utils::Clock* clock = &utils::SystemClock::Instance();
};

/// What one collection is to contain and become.
struct CollectionOrder {
  bool basic = false;
  bool network = false;
  bool logs = false;
  bool ai_detect = false;
  bool coredump = false;
  nlohmann::json ai_detect_params = nlohmann::json::object();
  bool encrypt = true;
  std::string archive_name{};  ///< of the finished file, without a directory
};

}  // namespace varnel::service
