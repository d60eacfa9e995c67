#include "service/camera/timelapse/disk/film_store.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/fake_clock.h"
#include "support/full_disk.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"
#include "utils/owned.h"

namespace varnel::service {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

class TimelapseStoreTest : public testing::Test {
 protected:
  TimelapseStoreTest() {
    paths_.root = dir_ / "store";
    paths_.web = dir_ / "web";
    fs::create_directories(paths_.root);
  }

  /// The record of a film whose files exist.
  json Film(const std::string& index) const {
    const fs::path work = paths_.root / index;
    dir_.Write("store/" + index + "/film.mp4", "film of " + index);
    dir_.Write("store/" + index + "/thumbnail.jpg", "thumbnail");
    dir_.Write("store/" + index + "/thumbnail_base64.txt", "dGh1bWI=");
    return {{"date_index", index},
            {"gcode_name", "it's \"a\"\n"},
            {"gcode_path", "../x"},
            {"timelapse_dir", work.string()},
            {"generate_date", "2026-01-01"},
            {"unix_timestamp_s", 1767225600},
            {"video_duration", "00:05"},
            {"video_path", (work / "film.mp4").string()},
            {"thumbnail_path", (work / "thumbnail.jpg").string()}};
  }
  void AddFilm(const std::string& index) const { EXPECT_EQ(store_.Publish(Film(index)), ""); }
  std::vector<std::string> Listed(const TimelapseQuery& query) const {
    std::vector<std::string> indices;
    const json list = store_.List(query).value();
    for (const json& item : list["instances"]) indices.push_back(item["date_index"]);
    EXPECT_EQ(list["count"], indices.size());
    return indices;
  }
  void Describe(const std::string& text) const { dir_.Write("store/timelapse.json", text); }
  std::string Description() const { return test::ReadFile(paths_.Description()); }

  test::LogCapture log_;
  test::TempDir dir_;
  test::FakeClock clock_{test::FakeClock::Waiting::kJump};
  TimelapsePaths paths_;
  FilmStore store_{paths_, clock_};
};

TEST_F(TimelapseStoreTest, ListsTheNewestFirstInPages) {
  for (const char* index : {"20260101000001", "20260101000003", "20260101000002"}) AddFilm(index);
  AddFilm("20260101000003");
  const std::vector<std::string> all = {"20260101000003", "20260101000002", "20260101000001"};
  EXPECT_EQ(Listed({}), all);
  const struct {
    size_t page;
    size_t rows;
    std::vector<std::string> indices;
  } cases[] = {{1, 2, {all[0], all[1]}}, {2, 2, {all[2]}}, {3, 2, {}}, {1, 10, all}, {4, 1, {}},
               {SIZE_MAX, SIZE_MAX, {}}};
  for (const auto& test : cases) {
    EXPECT_EQ(Listed({false, test.page, test.rows, false}), test.indices) << test.page;
  }
  EXPECT_EQ(store_.List({}).value()["total_count"], 3);
}

TEST_F(TimelapseStoreTest, DeletingLeavesNoTrace) {
  AddFilm("20260101000001");
  AddFilm("20260101000002");
  EXPECT_EQ(store_.Delete("20260101000009"), hal_adapter::HalStatus::kInvalidParameter);
  EXPECT_EQ(store_.Delete("../../etc"), hal_adapter::HalStatus::kInvalidParameter);
  EXPECT_EQ(store_.Delete("20260101000001"), hal_adapter::HalStatus::kSuccess);
  EXPECT_EQ(Listed({}), (std::vector<std::string>{"20260101000002"}));
  EXPECT_EQ(json::parse(Description())["count"], 1);
  EXPECT_FALSE(fs::exists(paths_.root / "20260101000001"));
  EXPECT_EQ(std::distance(fs::directory_iterator(paths_.web), {}), 2) << "the links of the other";
  EXPECT_EQ(test::ReadFile(paths_.web / "timelapse_20260101000002.mp4"), "film of 20260101000002");
}

TEST_F(TimelapseStoreTest, AnIllegalDescriptionIsKeptBesideTheNewOne) {
  const std::string deep(100'000, '[');
  int broken = 0;
  for (const std::string& illegal :
       {std::string("{"), std::string(""), std::string("[]"), std::string(R"({"instances":{}})"),
        std::string("\xff"), deep}) {
    Describe(illegal);
    EXPECT_EQ(store_.Delete("20260101000001"), hal_adapter::HalStatus::kFileFormatError);
    EXPECT_EQ(Description(), illegal) << "only a new one replaces it";
    EXPECT_EQ(store_.Publish(Film("20260101000001")), "");
    EXPECT_EQ(Listed({}).size(), 1U);
    EXPECT_EQ(test::ReadFile(dir_ / fmt::format("store/timelapse.json.{}.bad", ++broken)), illegal);
  }
}

TEST_F(TimelapseStoreTest, RecordsThatOthersChangedDoNoHarm) {
  Describe(R"({"count":"x","instances":[7,null,{},{"date_index":1},{"date_index":"../../etc"},
      {"date_index":"20260101000001","video_path":3,"unix_timestamp_s":"y","more":[1]}]})");
  EXPECT_EQ(Listed({}), (std::vector<std::string>{"20260101000001"}));
  EXPECT_EQ(store_.Publish(Film("20260101000002")), "");
  EXPECT_EQ(json::parse(Description())["instances"].size(), 7U) << "what is not ours stays";
}

TEST_F(TimelapseStoreTest, ADescriptionThatCannotBeReadNowIsNotGivenUp) {
  AddFilm("20260101000001");
  const json another = Film("20260101000002");
  const int next = utils::UniqueFd(::open("/", O_RDONLY | O_CLOEXEC)).Get();
  {
    const test::ResourceLimit descriptors(RLIMIT_NOFILE, static_cast<rlim_t>(next) + 1);
    EXPECT_FALSE(store_.List({}).has_value());
    EXPECT_EQ(store_.Publish(another), "the description file cannot be read");
    EXPECT_EQ(store_.Delete("20260101000001"), hal_adapter::HalStatus::kFailure);
  }
  EXPECT_EQ(Listed({}), (std::vector<std::string>{"20260101000001"}));
  EXPECT_FALSE(fs::exists(paths_.Description().string() + ".1.bad"));
}

TEST_F(TimelapseStoreTest, OnAFullDiskNothingIsLostAndFilmsCanBeDeleted) {
  AddFilm("20260101000001");
  json large = Film("20260101000002");
  large["gcode_name"] = std::string(8192, 'n');
  EXPECT_EQ(store_.Publish(large), "");
  const std::string before = Description();
  {
    const test::FullDisk full(4096);
    EXPECT_EQ(store_.Publish(Film("20260101000003")), "the description file cannot be written");
    EXPECT_EQ(Description(), before);
    EXPECT_EQ(store_.Delete("20260101000001"), hal_adapter::HalStatus::kFailure)
        << "the record cannot be written";
    EXPECT_TRUE(fs::is_empty(paths_.root / ".deleted_20260101000001")) << "there is room now";
    EXPECT_EQ(store_.Delete("20260101000002"), hal_adapter::HalStatus::kSuccess);
  }
  store_.CompleteDeletions();
  EXPECT_TRUE(Listed({}).empty());
  EXPECT_TRUE(fs::is_empty(paths_.web));
}

TEST_F(TimelapseStoreTest, LinksAreOnlyMadeForWhatIsThere) {
  dir_.Write("web", "not a directory");
  json film = Film("20260101000001");
  EXPECT_EQ(store_.Publish(film), "");
  fs::remove(paths_.web);
  fs::remove(paths_.root / "20260101000001/thumbnail.jpg");
  store_.RepairLinks();
  EXPECT_TRUE(fs::exists(paths_.web / "timelapse_20260101000001.mp4"));
  EXPECT_EQ(std::distance(fs::directory_iterator(paths_.web), {}), 1);
  EXPECT_EQ(store_.Delete("20260101000001"), hal_adapter::HalStatus::kSuccess);
  EXPECT_EQ(store_.Publish(film), "it was deleted meanwhile");
  EXPECT_TRUE(Listed({}).empty());
}

TEST_F(TimelapseStoreTest, ALockThatIsNeverGivenBackFailsTheOperation) {
  AddFilm("20260101000001");
  const utils::UniqueFd holder(::open(paths_.Lock().c_str(), O_RDWR | O_CLOEXEC));
  ASSERT_EQ(::flock(holder.Get(), LOCK_EX), 0);
  EXPECT_EQ(store_.Delete("20260101000001"), hal_adapter::HalStatus::kFailure);
  EXPECT_NE(store_.Publish(Film("20260101000002")), "");
  EXPECT_FALSE(store_.List({}).has_value()) << "which is not a store without films";
  EXPECT_TRUE(log_.Has("TLP", "Failed to acquire file lock: Failed to acquire file lock"));
  EXPECT_GE(clock_.Elapsed(), FilmStore::kLockLimit);
}

TEST_F(TimelapseStoreTest, TwoProcessesLoseNoUpdate) {
  constexpr int kFilms = 50;
  constexpr int kRounds = 20;
  // Each process looks after every round whether all its updates are there.
  const auto update_all = [this](int64_t process) {
    const FilmStore store(paths_);
    int lost = 0;
    for (int round = 1; round <= kRounds; ++round) {
      for (int64_t film = 0; film < kFilms; ++film) {
        const int64_t index = 20260101000000 + process * kFilms + film;
        if (!store
                 .Publish({{"date_index", std::to_string(index)},
                           {"unix_timestamp_s", process * kRounds + round},
                           {"timelapse_dir", paths_.root.string()}})
                 .empty()) {
          ++lost;
        }
      }
      int found = 0;
      const json list = store.List({}).value();
      for (const json& item : list["instances"])
        found += item["unix_timestamp_s"] == process * kRounds + round ? 1 : 0;
      lost += kFilms - found;
    }
    return lost;
  };
  const pid_t child = ::fork();
  if (child == 0) ::_exit(update_all(1) == 0 ? 0 : 1);
  EXPECT_EQ(update_all(2), 0);
  int status = -1;
  ::waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(Listed({}).size(), size_t{2} * kFilms);
}

}  // namespace
}  // namespace varnel::service
