#include "service/system/upgrade/printer_state.h"

#include <nlohmann/json.hpp>

#include "utils/log.h"

namespace varnel::service {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;

constexpr const char* kTag = "UPGM";
constexpr std::chrono::milliseconds kLimit = 2s;
constexpr std::chrono::milliseconds kRetry = 100ms;

bool Prints(const json& response) {
  static const json::json_pointer kState("/result/status/print_stats/state");
  if (!response.contains(kState)) return false;
  const json& state = response.at(kState);
  return state == "printing" || state == "paused";
}

comms::JsonRpcClient::CallResult Ask(comms::CommsManager& comms, std::chrono::milliseconds limit) {
  if (!comms.IsLocalConnected()) return {comms::CommsStatus::kNotConnected, {}};
  return comms.CallLocal("moonraker/request", "printer.objects.query",
                         {{"objects", {{"print_stats", {"state"}}}}}, limit);
}

}  // namespace

const char* PrinterRefusal(comms::CommsManager& comms, const utils::Clock& clock,
                           const std::function<bool(std::chrono::milliseconds time)>& pause) {
  using comms::CommsStatus;
  const auto deadline = clock.Now() + kLimit;
  auto status = CommsStatus::kNotConnected;
  for (auto left = kLimit; left > 0ms;
       left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - clock.Now())) {
    const auto result = Ask(comms, left);
    if (result.status == CommsStatus::kOk)
      return Prints(result.response) ? "printer is printing" : nullptr;
    status = result.status;
    if (status == CommsStatus::kTimeout || !pause(std::min(left, kRetry))) break;
  }
  VLOG_WARN(kTag, "Moonraker does not tell whether it prints, ret = {}", comms::Code(status));
  const bool was_asked = status == CommsStatus::kTimeout && comms.IsLocalConnected();
  return was_asked ? nullptr : "printer state is unknown";
}

}  // namespace varnel::service
