#include "service/system/upgrade/printer_state.h"

#include <nlohmann/json.hpp>

#include "utils/log.h"

namespace varnel::service {
namespace {

using nlohmann::json;

constexpr const char* kTag = "UPGM";
constexpr std::chrono::seconds kLimit{2};

}  // namespace

bool IsPrinting(comms::CommsManager& comms) {
  const auto result = comms.CallLocal("moonraker/request", "printer.objects.query",
                                      {{"objects", {{"print_stats", {"state"}}}}}, kLimit);
  if (result.status != comms::CommsStatus::kOk) {
    VLOG_WARN(kTag, "Moonraker does not tell whether it prints, ret = {}",
              comms::Code(result.status));
    return false;
  }
  static const json::json_pointer kState("/result/status/print_stats/state");
  if (!result.response.contains(kState)) return false;
  const json& state = result.response.at(kState);
  return state == "printing" || state == "paused";
}

}  // namespace varnel::service
