#include "comms/client_kind.h"
#include "comms/client_mqtt_async.h"

namespace varnel::test {

std::shared_ptr<comms::ClientMqttBase> NewClient(const std::string& name, comms::Qos qos) {
  return std::make_shared<comms::ClientMqttAsync>(name, qos);
}

}  // namespace varnel::test
