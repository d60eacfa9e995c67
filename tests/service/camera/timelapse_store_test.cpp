#include "service/camera/timelapse_store.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/fake_clock.h"
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
  void AddFilm(const std::string& index) const {
    const json film = Film(index);
    EXPECT_EQ(store_.Add(film), "");
    store_.PublishLinks(film);
  }
  std::vector<std::string> Listed(const TimelapseQuery& query) const {
    std::vector<std::string> indices;
    const json list = store_.List(query);
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
  TimelapseStore store_{paths_, clock_};
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
  const json list = store_.List({});
  EXPECT_EQ(list["total_count"], 3);
  EXPECT_EQ(list["page_rows"], 3);
  EXPECT_EQ(list["instances"][0],
            json::parse(R"({"date_index": "20260101000003", "gcode_name": "it's \"a\"\n",
                            "gcode_path": "../x", "generate_date": "2026-01-01",
                            "unix_timestamp_s": 1767225600, "video_duration": "00:05",
                            "video_url": "/files/camera/timelapse_20260101000003.mp4",
                            "video_size": 22,
                            "thumbnail_path": "/files/camera/thumbnail_20260101000003.jpg"})"));
  const json direct = store_.List({false, 1, 1, true})["instances"][0];
  EXPECT_EQ(direct["thumbnail_base64"], "data:image/jpeg;base64,dGh1bWI=");
  EXPECT_FALSE(direct.contains("thumbnail_path"));
}

TEST_F(TimelapseStoreTest, DeletingLeavesNoTrace) {
  AddFilm("20260101000001");
  AddFilm("20260101000002");
  EXPECT_EQ(store_.Delete("20260101000009"), -2);
  EXPECT_EQ(store_.Delete("../../etc"), -2);
  EXPECT_EQ(store_.Delete("20260101000001"), 0);
  EXPECT_EQ(Listed({}), (std::vector<std::string>{"20260101000002"}));
  EXPECT_EQ(json::parse(Description())["count"], 1);
  EXPECT_FALSE(fs::exists(paths_.root / "20260101000001"));
  EXPECT_EQ(std::distance(fs::directory_iterator(paths_.web), {}), 2) << "the links of the other";
  EXPECT_EQ(test::ReadFile(paths_.web / "timelapse_20260101000002.mp4"), "film of 20260101000002");
}

TEST_F(TimelapseStoreTest, ADeletionThatWasCutShortIsCompleted) {
  AddFilm("20260101000001");
  fs::rename(paths_.root / "20260101000001", paths_.root / ".deleted_20260101000001");
  store_.CompleteDeletions();
  EXPECT_TRUE(Listed({}).empty());
  EXPECT_TRUE(fs::is_empty(paths_.web));
  EXPECT_FALSE(fs::exists(paths_.root / ".deleted_20260101000001"));
}

TEST_F(TimelapseStoreTest, WithoutADescriptionNothingIsListedOrDeleted) {
  EXPECT_EQ(store_.Delete("20260101000001"), -86);
  EXPECT_EQ(store_.List({})["total_count"], 0);
  EXPECT_FALSE(fs::exists(paths_.Description())) << "reading makes no file";
  fs::remove_all(paths_.root);
  EXPECT_EQ(store_.List({})["count"], 0);
  EXPECT_EQ(store_.Delete("20260101000001"), -86);
  EXPECT_FALSE(fs::exists(paths_.root));
}

TEST_F(TimelapseStoreTest, AnIllegalDescriptionIsKeptBesideTheNewOne) {
  const std::string deep(100'000, '[');
  for (const std::string& illegal :
       {std::string("{"), std::string(""), std::string("[]"), std::string(R"({"instances":{}})"),
        std::string("\xff"), deep}) {
    Describe(illegal);
    EXPECT_EQ(store_.Delete("20260101000001"), -87);
    EXPECT_EQ(Description(), illegal) << "only a new one replaces it";
    EXPECT_EQ(store_.Add(Film("20260101000001")), "");
    EXPECT_EQ(Listed({}).size(), 1U);
    EXPECT_EQ(test::ReadFile(paths_.Description().string() + ".bad"), illegal);
  }
}

TEST_F(TimelapseStoreTest, RecordsThatOthersChangedDoNoHarm) {
  Describe(R"({"count":"x","instances":[7,null,{},{"date_index":1},{"date_index":"../../etc"},
      {"date_index":"20260101000001","video_path":3,"unix_timestamp_s":"y","more":[1]}]})");
  EXPECT_EQ(Listed({}), (std::vector<std::string>{"20260101000001"}));
  EXPECT_EQ(store_.Add(Film("20260101000002")), "");
  EXPECT_EQ(json::parse(Description())["instances"].size(), 7U) << "what is not ours stays";
}

TEST_F(TimelapseStoreTest, ALockThatIsNeverGivenBackFailsTheOperation) {
  AddFilm("20260101000001");
  const utils::UniqueFd holder(::open(paths_.Lock().c_str(), O_RDWR | O_CLOEXEC));
  ASSERT_EQ(::flock(holder.Get(), LOCK_EX), 0);
  EXPECT_EQ(store_.Delete("20260101000001"), -1);
  EXPECT_NE(store_.Add(Film("20260101000002")), "");
  EXPECT_EQ(store_.List({})["count"], 0);
  EXPECT_TRUE(log_.Has("TLP", "Failed to acquire file lock: Failed to acquire file lock"));
  EXPECT_GE(clock_.Elapsed(), TimelapseStore::kLockLimit);
}

TEST_F(TimelapseStoreTest, TwoProcessesLoseNoUpdate) {
  constexpr int kUpdates = 100;
  const auto add_all = [this](int process) {
    for (int i = 0; i < kUpdates; ++i) {
      const TimelapseStore store(paths_);
      (void)store.Add({{"date_index", std::to_string(20260101000000 + process * 1000 + i)}});
    }
  };
  const pid_t child = ::fork();
  if (child == 0) {
    add_all(1);
    ::_exit(0);
  }
  add_all(2);
  ::waitpid(child, nullptr, 0);
  EXPECT_EQ(Listed({}).size(), size_t{2 * kUpdates});
}

}  // namespace
}  // namespace varnel::service
