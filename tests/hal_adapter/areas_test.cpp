#include <gmock/gmock.h>

#include "hal_adapter/ai_adapter.h"
#include "hal_adapter/camera.h"
#include "hal_adapter/fake_tables.h"
#include "hal_adapter/multimedia_adapter.h"
#include "hal_adapter/storage_adapter.h"
#include "hal_adapter/system_adapter.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace varnel::hal_adapter {
namespace {

const AreaInit kWorks = [] { return HalStatus::kSuccess; };
const AreaInit kFails = [] { return HalStatus::kFailure; };

class AreasTest : public testing::Test {
 protected:
  AreasTest() { test::Fake() = {}; }
  ~AreasTest() override { test::Fake() = {}; }

  IdentityFiles Files() const {
    return {dir_ / "serial", dir_ / "product", dir_ / "version", dir_ / "full"};
  }
  /// Starts one adapter of each area.
  void ExpectNoStart(const AreaInit& init) {
    EXPECT_FALSE(AiAdapter(init, registry_).Start());
    EXPECT_FALSE(StorageAdapter(init, registry_).Start());
    EXPECT_FALSE(SystemAdapter(init, Files(), registry_).Start());
    EXPECT_FALSE(
        MultimediaAdapter({.init = init, .has_space = {}, .registry = &registry_}).Start());
  }

  test::LogCapture log_;
  test::TempDir dir_;
  HalRegistry registry_;
};

TEST_F(AreasTest, AMissingTableOrInitialisationStopsTheAreaAlone) {
  ExpectNoStart(kFails);
  ExpectNoStart(kWorks);
  for (const char* tag : {"HALAI", "HALSTO", "HALSYS", "HALMM"}) {
    EXPECT_EQ(log_.Count(tag, "Initialization failed"), 1u) << tag;
    EXPECT_EQ(log_.Count(tag, "Interface is invalid"), 1u) << tag;
  }
}

TEST_F(AreasTest, ANullTableLeavesTheOldOne) {
  static const SystemHalInterface system{};
  registry_.system.Register(&system);
  registry_.system.Register(nullptr);
  EXPECT_EQ(registry_.system.Get(), &system);
  EXPECT_TRUE(log_.Has("HALSYS", "System HAL interface register failed, iface is null"));
}

/// Every operation of the camera, in one fixed order.
std::vector<HalStatus> CallAll(Camera camera) {
  uint32_t count = 0;
  CameraImage image{};
  return {camera.GetCount(count), camera.UpdateInfo(),  camera.Open(nullptr),
          camera.Close(),         camera.SetConfig({}), camera.TakePhoto(image),
          camera.StartStream(),   camera.StopStream()};
}

TEST_F(AreasTest, ACameraPassesFailuresUpAndSurvivesMissingSlotsAndTables) {
  const MultimediaHalInterface table = test::FakeMultimedia();
  using enum HalStatus;
  test::Fake().status = test::Fake().count_status = HalStatus::kBusy;
  EXPECT_THAT(CallAll(Camera(&table, 2)), testing::ElementsAre(kBusy, kBusy, kBusy, kBusy, kBusy,
                                                               kBusy, kUnsupported, kUnsupported));
  EXPECT_TRUE(log_.Has("CAM", "Camera 2 take photo failed, reason is resource is busy"));
  const MultimediaHalInterface empty{};
  EXPECT_THAT(CallAll(Camera(&empty, 0)), testing::Each(HalStatus::kUnsupported));
  EXPECT_TRUE(log_.Has("CAM", "set_camera_config interface has not been implemented"));
  EXPECT_THAT(CallAll(Camera(nullptr, 0)), testing::Each(HalStatus::kInvalidState));
  EXPECT_EQ(log_.Count("CAM", "Camera is not ready"), 8u);
}

TEST(HalErrorStringTest, KnowsItsCodesAndNoOther) {
  EXPECT_EQ(std::size(kHalStatusTexts), 19u);
  EXPECT_STREQ(hal_error_string(HalStatus::kFileNotFound), "file not found");
  for (const int32_t status : {1, -11})
    EXPECT_STREQ(hal_error_string(FromExitCode(status)), "unknown error");
}

TEST_F(AreasTest, StorageReadsItsPathsOnce) {
  const StorageHalInterface table{test::FakePath};
  registry_.storage.Register(&table);
  StorageAdapter adapter(kWorks, registry_);
  ASSERT_TRUE(adapter.Start());
  EXPECT_EQ(adapter.Paths().config, "/dir0");
  EXPECT_EQ(adapter.Paths().config_save, "/dir1/varnel");
  EXPECT_EQ(adapter.Paths().user_data, "/dir2");
  EXPECT_EQ(adapter.Paths().temporary, "/dir3");
}

TEST_F(AreasTest, StorageNamesThePathThatFailedAndKeepsTheOthers) {
  const StorageHalInterface table{test::FakePath};
  registry_.storage.Register(&table);
  const char* const texts[] = {"Get config path failed", "Get config save path failed",
                               "Get userdata path failed", "Get temporary path failed"};
  for (uint32_t type = 0; type < 4; ++type) {
    test::Fake().failing_path = type;
    StorageAdapter adapter(kWorks, registry_);
    EXPECT_FALSE(adapter.Start());
    EXPECT_EQ(log_.Count("HALSTO", texts[type]), 1u);
    const StoragePaths& paths = adapter.Paths();
    EXPECT_EQ(paths.config.empty() + paths.config_save.empty() + paths.user_data.empty() +
                  paths.temporary.empty(),
              1);
  }
  const StorageHalInterface empty{};
  registry_.storage.Register(&empty);
  EXPECT_FALSE(StorageAdapter(kWorks, registry_).Start());
  EXPECT_TRUE(log_.Has("HALSTO", "get_path interface has not been implemented"));
}

}  // namespace
}  // namespace varnel::hal_adapter
