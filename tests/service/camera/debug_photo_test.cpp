#include "service/camera/debug_photo.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <time.h>

#include <limits>

namespace varnel::service {
namespace {

/// A time zone without a data base: one hour east, without summer time.
class DebugPhotoTest : public testing::Test {
 protected:
  DebugPhotoTest() { Use("CET-1"); }
  ~DebugPhotoTest() override { Use(nullptr); }

 private:
  static void Use(const char* zone) {
    zone != nullptr ? ::setenv("TZ", zone, 1) : ::unsetenv("TZ");
    ::tzset();
  }
};

TEST_F(DebugPhotoTest, ATimeOfTheYears1To9999BecomesPartOfTheName) {
  const struct {
    int64_t timestamp;
    const char* filepath;
    const char* path;  ///< null: refused
  } cases[] = {
      {0, "/u/p.jpg", "/u/p.jpg"},
      {1, "/u/p.jpg", "/u/p_19700101010001.jpg"},
      {-3601, "/u/p.jpg", "/u/p_19691231235959.jpg"},
      {1735689600, "/u/a.b.png", "/u/a.b_20250101010000.png"},
      {1735689600, "/u.d/p", "/u.d/p_20250101010000"},
      {1735689600, "/u/.jpg", "/u/_20250101010000.jpg"},
      {1735689600, "/u/p.", "/u/p_20250101010000."},
      {1735689600, "p.jpg", "p_20250101010000.jpg"},
      {1735689600, "", ""},
      {1735689600, "/u/", "/u/"},
      {1735689600, "/u/.", "/u/."},
      {1735689600, "/u/..", "/u/.."},
      // the first and the last second of the range, local time, and their neighbours
      {-62135600400, "/p.jpg", "/p_00010101000000.jpg"},
      {-62135600401, "/p.jpg", nullptr},
      {253402297199, "/p.jpg", "/p_99991231235959.jpg"},
      {253402297200, "/p.jpg", nullptr},
      {-62167219200, "/p.jpg", nullptr},  // the year 0
      {-99999999999, "/p.jpg", nullptr},
      {253402297200, "", nullptr},
      {std::numeric_limits<int64_t>::max(), "/p.jpg", nullptr},
      {std::numeric_limits<int64_t>::min(), "/p.jpg", nullptr},
  };
  for (const auto& test : cases) {
    const auto path = DebugPhotoPath({test.timestamp, test.filepath});
    EXPECT_EQ(path.value_or("refused"), test.path != nullptr ? test.path : "refused")
        << test.timestamp;
  }
}

}  // namespace
}  // namespace varnel::service
