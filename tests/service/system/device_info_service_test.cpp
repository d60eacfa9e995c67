#include "service/system/device_info_service.h"

#include <gtest/gtest.h>

namespace varnel::service {
namespace {

using nlohmann::json;

TEST(DeviceInfoServiceTest, AnIdentityThatCouldNotBeReadIsAnsweredByItsFallbacks) {
  comms::CommsManager comms;
  const DeviceInfoService service(
      comms, [] { return std::make_shared<const hal_adapter::DeviceIdentity>(); });
  const json expected = {
      {"state", "success"}, {"serial_number", "--"}, {"product_code", "--"},       {"version", ""},
      {"fullversion", ""},  {"hwver", "Unknown"},    {"mac_address", "UnknownMAC"}};
  for (const json& params : {json(), json::object(), json::array({1}), json("x")})
    EXPECT_EQ(service.ReqCallbackSystemGetDeviceInfo(params), expected);
}

}  // namespace
}  // namespace varnel::service
