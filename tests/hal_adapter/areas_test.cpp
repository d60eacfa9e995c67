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
  test::Fake().status = test::Fake().count_status = HalStatus::kBusy;
  std::vector<HalStatus> expected(6, HalStatus::kBusy);
  expected.insert(expected.end(), 2, HalStatus::kUnsupported);
  EXPECT_EQ(CallAll(Camera(&table, 2)), expected);
  const MultimediaHalInterface empty{};
  EXPECT_THAT(CallAll(Camera(&empty, 0)), testing::Each(HalStatus::kUnsupported));
  EXPECT_THAT(CallAll(Camera(nullptr, 0)), testing::Each(HalStatus::kInvalidState));
}

TEST_F(AreasTest, StorageReadsEachPathThatDoesNotFail) {
  const StorageHalInterface table{test::FakePath};
  registry_.storage.Register(&table);
  for (uint32_t failing = 0; failing <= 4; ++failing) {
    test::Fake().failing_path = failing;
    StorageAdapter adapter(kWorks, registry_);
    EXPECT_EQ(adapter.Start(), failing == 4);
    const StoragePaths& paths = adapter.Paths();
    EXPECT_EQ(paths.config, failing == 0 ? "" : "/dir0");
    EXPECT_EQ(paths.config_save, failing == 1 ? "" : "/dir1/varnel");
    EXPECT_EQ(paths.user_data, failing == 2 ? "" : "/dir2");
    EXPECT_EQ(paths.temporary, failing == 3 ? "" : "/dir3");
  }
  const StorageHalInterface empty{};
  registry_.storage.Register(&empty);
  EXPECT_FALSE(StorageAdapter(kWorks, registry_).Start());
}

}  // namespace
}  // namespace varnel::hal_adapter
