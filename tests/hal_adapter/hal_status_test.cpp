#include "hal_interface/hal_status.h"

#include <gtest/gtest.h>

namespace varnel::hal_adapter {
namespace {

TEST(HalErrorStringTest, KnowsEveryCodeAndNoOther) {
  const std::pair<HalStatus, const char*> texts[] = {
      {0, "success"},
      {-1, "general failure"},
      {-2, "invalid parameter"},
      {-3, "no memory"},
      {-4, "no resource except memory"},
      {-5, "timeout"},
      {-6, "resource is busy"},
      {-7, "unsupported operation"},
      {-8, "state is invalid for current operation"},
      {-9, "hardware errors"},
      {-10, "invalid command set"},
      {-80, "open file failed"},
      {-81, "close file failed"},
      {-82, "read file failed"},
      {-83, "write file failed"},
      {-84, "map file failed"},
      {-85, "unmap file failed"},
      {-86, "file not found"},
      {-87, "file format error"},
      {1, "unknown error"},
      {-11, "unknown error"},
      {-79, "unknown error"},
      {-88, "unknown error"},
      {INT32_MIN, "unknown error"},
  };
  for (const auto& [status, text] : texts) EXPECT_STREQ(hal_error_string(status), text) << status;
}

}  // namespace
}  // namespace varnel::hal_adapter
