#include <gtest/gtest.h>

#include "hal_adapter/ai_adapter.h"
#include "hal_adapter/fake_tables.h"
#include "hal_adapter/multimedia_adapter.h"
#include "hal_adapter/storage_adapter.h"
#include "hal_adapter/system_adapter.h"
#include "hal_interface/hal_register.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace varnel::hal_adapter {
namespace {

const AreaInit kWorks = [] { return kHalSuccess; };
const AreaInit kFails = [] { return kHalFailure; };

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

TEST_F(AreasTest, RegistrationIsReportedAndANullTableRefused) {
  static const AiHalInterface ai{};
  static const MultimediaHalInterface multimedia{};
  static const StorageHalInterface storage{};
  static const SystemHalInterface system{};
  register_ai_hal(&ai);
  register_multimedia_hal(&multimedia);
  register_storage_hal(&storage);
  register_system_hal(&system);
  register_ai_hal(nullptr);
  register_multimedia_hal(nullptr);
  register_storage_hal(nullptr);
  register_system_hal(nullptr);
  const std::pair<const char*, const char*> areas[] = {
      {"HALAI", "AI"}, {"HALMM", "Multimedia"}, {"HALSTO", "Storage"}, {"HALSYS", "System"}};
  for (const auto& [tag, area] : areas) {
    EXPECT_TRUE(log_.Has(tag, std::string(area) + " HAL interface registered"));
    EXPECT_TRUE(log_.Has(tag, std::string(area) + " HAL interface register failed, iface is null"));
  }
  EXPECT_EQ(HalRegistry::Instance().ai.Get(), &ai) << "a null table changes nothing";
  EXPECT_EQ(HalRegistry::Instance().system.Get(), &system);
}

TEST_F(AreasTest, AiGivesTheDirectoryOfDetectionResults) {
  AiHalInterface table{};
  registry_.ai.Register(&table);
  AiAdapter adapter(kWorks, registry_);
  ASSERT_TRUE(adapter.Start());
  EXPECT_EQ(adapter.DetectResultDir(), "");
  EXPECT_TRUE(log_.Has("HALAI", "get_ai_basic_info interface has not been implemented"));
  table.get_ai_basic_info = [](char* out) {
    std::strcpy(out, "/results");
    return test::Fake().status;
  };
  EXPECT_EQ(adapter.DetectResultDir(), "/results");
  test::Fake().status = -1;
  EXPECT_EQ(adapter.DetectResultDir(), "");
  EXPECT_TRUE(log_.Has("HALAI", "Get AI basic information failed"));
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
