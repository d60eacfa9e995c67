// A process that is killed, or whose power is cut, before or after any of its changes to the disk
// loses nothing.
#include <gtest/gtest.h>

#include <fstream>
#include <set>

#include "service/camera/timelapse_world.h"
#include "support/disk_image.h"
#include "support/disk_trace.h"
#include "support/log_capture.h"

namespace varnel::service {
namespace {

namespace fs = std::filesystem;

class TimelapseKillTest : public testing::Test {
 protected:
  /// A print of two photos, its film, and the film's deletion. What a client was told is noted.
  static void Print(TimelapseWorld& world) {
    const auto note = [&world](const char* event) { fs::create_directories(world.Noted(event)); };
    const auto service = world.Service();
    if (!service->StartNew({})) return;
    const std::string index = WorkDirectories(world.paths_).NextIndex();
    note("started");
    (void)service->TakePhoto();
    note("photo 1");
    (void)service->TakePhoto();
    note("photo 2");
    (void)service->Stop();
    note("stopped");
    (void)world.Film(*service, index);
    note("listed");
    (void)test::Eventually([&] { return world.State(index) == "FINISHED\n"; });
    (void)service->Store().Delete(index);
    note("deleted");
  }

  /// After the next start: nothing half-made, and a film that is listed plays.
  static void ExpectSound(TimelapseWorld& world) {
    const fs::path current = world.paths_.Current();
    EXPECT_TRUE(!fs::is_symlink(current) || fs::exists(current)) << "a link that dangles";
    const bool listed =
        test::ReadFile(world.paths_.Description()).find("date_index") != std::string::npos;
    const size_t told = world.notified_.Items().size();
    const auto service = world.Service();
    const auto instances = world.Instances();
    const auto noted = [&world](const char* event) { return fs::exists(world.Noted(event)); };
    ASSERT_LE(instances.size(), noted("deleted") ? 0U : 1U);
    ASSERT_TRUE(!instances.empty() || !noted("started") || noted("listed")) << "a print is lost";
    const std::string index = instances.empty() ? "" : instances.front();
    if (world.State(index) == "ACTIVATED\n") {
      // Killed while it printed: it goes on with what was taken.
      const size_t taken = PhotosIn(world.paths_.root / index);
      ASSERT_FALSE(noted("stopped"));
      ASSERT_GE(taken, noted("photo 2") ? 2U : noted("photo 1") ? 1U : 0U);
      ASSERT_TRUE(service->Continue());
      ASSERT_EQ(service->TakePhoto(), TimelapsePhoto::kTaken);
      ASSERT_EQ(service->Stop(), TimelapseService::StopResult::kStopped);
      const std::string film = world.Film(*service, index);
      EXPECT_EQ(static_cast<size_t>(std::count(film.begin(), film.end(), '\n')), taken + 2) << film;
    } else if (!index.empty()) {
      EXPECT_EQ(world.Film(*service, index), "a2\na1\na2\n");
    }
    EXPECT_TRUE(index.empty() ||
                test::Eventually([&] { return world.State(index) == "FINISHED\n"; }));
    const auto list = service->Store().List({.thumbnail_inline = true}).value();
    EXPECT_EQ(list["count"], instances.size());
    for (const auto& film : list["instances"])
      EXPECT_GT(film["thumbnail_base64"].get<std::string>().size(), 23U) << "more than its type";
    EXPECT_TRUE(test::Eventually([&] { return world.Leftovers().empty(); }));
    EXPECT_TRUE(!listed || world.notified_.Items().size() == told) << "a film is made again";
  }
  static size_t PhotosIn(const fs::path& directory) {
    return WorkDirectory(directory, {}, TimelapseState::kActivated).Photos().size();
  }

  test::LogCapture log_;
};

TEST_F(TimelapseKillTest, NothingIsLostAtAnyStep) {
  TimelapseWorld world;
  test::DiskRecorder recorder(world.dir_.Path());
  std::set<test::DiskImage> images;
  const auto record = [&](const test::DiskCall& call) {
    if (call.sync && call.made) recorder.Synced(call.thread, call.descriptor);
    for (test::DiskImage image :
         {recorder.WithAllNames(true), recorder.WithAllNames(), recorder.WithSyncedNames()}) {
      // What a client was told, and the programs of this world, are no matter of its disk.
      for (const auto& [name, value] : recorder.WithAllNames())
        if (!name.starts_with("store") && !name.starts_with("web")) image[name] = value;
      images.insert(std::move(image));
    }
  };
  EXPECT_TRUE(test::TraceDisk([&world] { Print(world); }, record));
  EXPECT_GT(images.size(), 60U);
  for (const test::DiskImage& image : images) {
    test::RestoreDisk(world.dir_.Path(), image);
    world.WritePrograms();
    std::string names;
    for (const auto& [name, value] : image) names += fmt::format("{} {}\n", name, value.size());
    SCOPED_TRACE("after an end that left\n" + names);
    ASSERT_NO_FATAL_FAILURE(ExpectSound(world));
  }
}

}  // namespace
}  // namespace varnel::service
