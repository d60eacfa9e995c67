#include "service/agent/agent_state.h"

#include <array>
#include <cstddef>

namespace varnel::service {
namespace {

struct StateRow {
  const char* name;
  const char* status;
  int32_t budget;
};

constexpr std::array<StateRow, 9> kStates{{{"INIT", "disconnected", 0},
                                           {"IDLE", "disconnected", 3},
                                           {"NETWORK_DETECTION", "detecting_network", 3},
                                           {"GET_ACCESS_TOKEN", "fetching_authentication", 5},
                                           {"FETCHING_AUTH_INFO", "fetching_authentication", 5},
                                           {"BROKER_DETECTION", "detecting_broker", 3},
                                           {"CONNECTING_BROKER", "connecting_broker", 5},
                                           {"CONNECTED", "connected", 5},
                                           {"REGION_LOCKED", "region_locked", 0}}};

constexpr std::array<const char*, 10> kFailures{
    "",
    "NETWORK_UNREACHABLE",
    "ACCESS_TOKEN_FAILED",
    "REGION_LOCKED",
    "AUTH_INFO_FAILED",
    "BROKER_UNREACHABLE",
    "BROKER_CONNECT_FAILED",
    "TOKEN_REFRESH_FAILED",
    "CONNECTION_LOST",
    "SERVER_DISCONNECTED",
};

const StateRow& RowOf(AgentState state) {
  return kStates.at(static_cast<std::size_t>(state));
}

}  // namespace

const char* NameOf(AgentState state) {
  return RowOf(state).name;
}

const char* StatusNameOf(AgentState state) {
  return RowOf(state).status;
}

int32_t RetryBudgetOf(AgentState state) {
  return RowOf(state).budget;
}

const char* NameOf(CloudFailure reason) {
  const auto row = static_cast<std::size_t>(reason);
  return row < kFailures.size() ? kFailures.at(row) : "UNKNOWN";
}

}  // namespace varnel::service
