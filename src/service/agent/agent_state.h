#pragma once

#include <cstdint>

namespace varnel::service {

/// How far the device is on its way into the cloud.
enum class AgentState : int32_t {
  INIT = 0,
  IDLE = 1,
  NETWORK_DETECTION = 2,
  GET_ACCESS_TOKEN = 3,
  FETCHING_AUTH_INFO = 4,
  BROKER_DETECTION = 5,
  CONNECTING_BROKER = 6,
  CONNECTED = 7,
  REGION_LOCKED = 8,
};

/// In log lines.
[[nodiscard]] const char* NameOf(AgentState state);
/// What local clients are told; two pairs of states are one to them.
[[nodiscard]] const char* StatusNameOf(AgentState state);
/// How many attempts a state has when it is entered.
[[nodiscard]] int32_t RetryBudgetOf(AgentState state);

/// Why a phase ended, as it is reported.
enum class CloudFailure : uint32_t {
  kNone = 0,
  kNetworkUnreachable = 1,
  kAccessTokenFailed = 2,
  kRegionLocked = 3,
  kAuthInfoFailed = 4,
  kBrokerUnreachable = 5,
  kBrokerConnectFailed = 6,
  kTokenRefreshFailed = 7,
  kConnectionLost = 8,
  kServerDisconnected = 9,
};

/// "" for none.
[[nodiscard]] const char* NameOf(CloudFailure reason);

}  // namespace varnel::service
