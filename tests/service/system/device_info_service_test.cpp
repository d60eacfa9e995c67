#include "service/system/device_info_service.h"

#include <gtest/gtest.h>

#include <memory>

#include "support/fake_mqtt_client.h"
#include "support/log_capture.h"

namespace varnel::service {
namespace {

using nlohmann::json;

class DeviceInfoServiceTest : public testing::Test {
 protected:
  DeviceInfoServiceTest() { EXPECT_EQ(comms_.InitLocal(), comms::CommsStatus::kOk); }

  test::LogCapture log_;
  comms::CommsManager comms_{[](const std::string& name, comms::Qos) {
    return std::make_shared<test::FakeMqttClient>(name);
  }};
  hal_adapter::DeviceIdentity identity_;
  DeviceInfoService service_{comms_, [this] {
                               return std::shared_ptr<const hal_adapter::DeviceIdentity>(
                                   std::shared_ptr<void>(), &identity_);
                             }};
};

TEST_F(DeviceInfoServiceTest, TellsTheIdentityAndKeepsItsSecret) {
  identity_.serial_number = "SN1";
  identity_.product_code = "PC1";
  identity_.device_key = utils::SecretString("the secret");
  identity_.mac = "02:00:00:00:00:01";
  identity_.firmware_version = "1.2.3";
  identity_.hardware_version = "V3";
  const json expected = {{"state", "success"},
                         {"serial_number", "SN1"},
                         {"product_code", "PC1"},
                         {"version", "1.2.3"},
                         {"fullversion", ""},
                         {"hwver", "V3"},
                         {"mac_address", "02:00:00:00:00:01"}};
  for (const json& params : {json(), json::object(), json::array({1}), json("x")})
    EXPECT_EQ(service_.ReqCallbackSystemGetDeviceInfo(params), expected);
  EXPECT_TRUE(log_.Has("DEVI", "receive JSON-RPC message: [1]"));
  EXPECT_EQ(log_.Text().find("the secret"), std::string::npos);
}

TEST_F(DeviceInfoServiceTest, AnIdentityThatCouldNotBeReadIsAnsweredByItsFallbacks) {
  const json expected = {
      {"state", "success"}, {"serial_number", "--"}, {"product_code", "--"},       {"version", ""},
      {"fullversion", ""},  {"hwver", "Unknown"},    {"mac_address", "UnknownMAC"}};
  EXPECT_EQ(service_.ReqCallbackSystemGetDeviceInfo({}), expected);
  EXPECT_EQ(service_.Start(), comms::CommsStatus::kOk);
  EXPECT_TRUE(log_.Has("DEVI", "Device info initialized via CommsManager."));
  EXPECT_NE(service_.Start(), comms::CommsStatus::kOk);
}

}  // namespace
}  // namespace varnel::service
