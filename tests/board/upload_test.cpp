// Films from the board to the cloud's object store.
#include <gmock/gmock.h>

#include <algorithm>

#include "board/cloud_board.h"
#include "support/eventually.h"
#include "virtual_board/common/files.h"

namespace varnel::board {
namespace {

using nlohmann::json;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

constexpr const char* kStored = "/objects/*";
/// For a film that fills a disk.
constexpr std::chrono::minutes kCopyLimit{5};
constexpr uint64_t kPartBytes = 5'242'880;

/// Of the film that goes in parts; VARNEL_FILM_BYTES.
uint64_t LargeFilm() {
  const char* wish = std::getenv("VARNEL_FILM_BYTES");
  return wish == nullptr ? 10'485'761 : std::stoull(wish);
}

/// So many parts has the encrypted copy, which has a head and is filled up to whole blocks.
size_t PartsOf(uint64_t film_bytes) {
  const uint64_t copy = 16 + (film_bytes / 16 + 1) * 16;
  return (copy + kPartBytes - 1) / kPartBytes;
}

class UploadTest : public testing::Test {
 protected:
  UploadTest() {
    board_.Join();
    EXPECT_EQ(board_.rpc.Call("camera.start_timelapse",
                              {{"type", "new"}, {"mode", "classic"}, {"frame_rate", 24}}),
              Success());
    EXPECT_EQ(Print(), Success());
    EXPECT_EQ(board_.rpc.Call("camera.stop_timelapse", nullptr), Success());
    EXPECT_TRUE(test::Eventually(
        [&] {
          const json films =
              board_.rpc.Call("camera.get_timelapse_instance", nullptr)["result"]["instances"];
          if (films.empty()) return false;
          index_ = films[0]["date_index"];
          return true;
        },
        std::chrono::seconds(120)));
    video_ =
        board_.board.Shell("readlink -f /home/ruxo/printer_data/camera/*.mp4 | tr -d '\\n'").out;
  }
  ~UploadTest() override {
    TheCloud().SetFaults("");
    TheCloud().SetUrlLife(std::chrono::hours(1));
  }

  json Print() { return board_.rpc.Call("camera.take_a_photo", {{"reason", "printing"}}); }
  /// Milliseconds, the best of three.
  std::chrono::milliseconds PrintTime() {
    auto best = std::chrono::milliseconds::max();
    for (int i = 0; i < 3; ++i) {
      const auto begin = std::chrono::steady_clock::now();
      EXPECT_EQ(Print(), Success());
      best = std::min(best, std::chrono::duration_cast<std::chrono::milliseconds>(
                                std::chrono::steady_clock::now() - begin));
    }
    return best;
  }
  json Upload() {
    const json id = board_.rpc.Post("camera.upload_timelapse_instance",
                                    {{"date_index", index_}, {"type", "video"}});
    return board_.rpc.Await(id, std::chrono::minutes(10))["result"];
  }
  /// The film is replaced by so many bytes of which no two parts are alike.
  void MakeLarge(uint64_t bytes) {
    const std::string line = "head -c " + std::to_string(bytes) + " /dev/urandom > " + video_;
    EXPECT_EQ(board_.board.Shell(line, kCopyLimit).status, 0);
  }
  /// Fetches what the answer tells of, and decrypts it as it says.
  void ExpectStored(const json& answer) {
    ASSERT_EQ(answer.value("state", ""), "success") << answer;
    const auto got = board_.board.Shell(
        "curl -sS --fail '" + answer.at("url").get<std::string>() +
            "' | openssl enc -d -aes-256-cbc -pbkdf2 -md sha256 -iter " +
            answer.at("iterations").dump() + " -pass pass:" + answer.at("pw").get<std::string>() +
            " > /tmp/got && cmp /tmp/got " + video_,
        kCopyLimit);
    EXPECT_EQ(got.status, 0) << got.out << got.err;
  }
  /// The PUTs so far.
  [[nodiscard]] static std::vector<json> Puts() {
    std::vector<json> puts = TheCloud().Journal();
    std::erase_if(puts, [](const json& entry) {
      return entry.at("event") != "request" || entry.value("method", "") != "PUT";
    });
    return puts;
  }
  /// Bytes that came to the store so far.
  [[nodiscard]] static uint64_t Taken() {
    uint64_t bytes = 0;
    for (const json& entry : TheCloud().Journal())
      if (entry.at("event") == "transferred") bytes += entry.at("received").get<uint64_t>();
    return bytes;
  }
  [[nodiscard]] std::string Copies() const {
    return board_.board.Shell("ls /userdata/.tmp 2>/dev/null").out;
  }

  CloudBoard board_{{}, true};
  std::string index_;
  std::string video_;
};

TEST_F(UploadTest, AFilmIsFetchedDecryptedAndPlays) {
  const json answer = Upload();
  ExpectStored(answer);
  EXPECT_EQ(board_.board.Shell("ffmpeg -nostdin -v error -i /tmp/got -f null -").err, "");
  EXPECT_THAT(Copies(), IsEmpty());

  MakeLarge(LargeFilm());
  const size_t parts = PartsOf(LargeFilm());
  const size_t before = Puts().size();
  ExpectStored(Upload());
  const uint64_t taken = Taken();
  TheCloud().SetUrlLife(std::chrono::seconds(0));
  EXPECT_EQ(Upload().value("message", ""), "internal error");
  EXPECT_EQ(Taken(), taken) << "not a byte for an address that has expired";
  const std::vector<json> puts = Puts();
  ASSERT_EQ(puts.size(), before + parts + 4) << "each part, and one as often as it is signed anew";
  for (size_t i = before; i < puts.size(); ++i) {
    const bool expired = i >= before + parts;
    EXPECT_EQ(puts[i].at("status"), expired ? 403 : 200) << puts[i];
    if (!expired) {
      EXPECT_EQ(puts[i].at("connection"), puts[before].at("connection"));
    }
    EXPECT_THAT(puts[i].at("headers").dump(),
                testing::AllOf(Not(HasSubstr("uthorization")), Not(HasSubstr("ustom"))));
  }
  TheCloud().SetUrlLife(std::chrono::hours(1));
  TheCloud().SetFaults(std::string("echo ") + kStored + " 500\n");
  EXPECT_EQ(Upload().value("message", ""), "internal error");
  board_.ExpectNoSecretLeft();
  const std::string log = board_.StopAndReadLog();
  EXPECT_THAT(log, Not(HasSubstr(answer.at("pw").get<std::string>())));
}

TEST_F(UploadTest, TwoAtATimeBesidePhotosAndAKillLeavesNoCopy) {
  MakeLarge(8'000'000);
  TheCloud().SetFaults(std::string("rate ") + kStored + " 100000\n");
  EXPECT_EQ(board_.rpc.Call("camera.start_timelapse",
                            {{"type", "new"}, {"mode", "classic"}, {"frame_rate", 24}}),
            Success());
  const auto alone = PrintTime();
  const json params{{"date_index", index_}, {"type", "video"}};
  for (int i = 0; i < 2; ++i) board_.rpc.Post("camera.upload_timelapse_instance", params);
  EXPECT_TRUE(board_.AwaitLog("Upload timelapse progress: "));
  for (int i = 0; i < 3; ++i) EXPECT_EQ(Upload().value("message", ""), "internal error");
  EXPECT_LT(PrintTime(), alone * 3 / 2 + std::chrono::milliseconds(200));
  EXPECT_THAT(Copies(), HasSubstr("_timelapse_enc"));
  board_.KillAndStart();
  ASSERT_TRUE(board_.rpc.AwaitDaemon());
  EXPECT_THAT(Copies(), IsEmpty());

  EXPECT_TRUE(board_.Await("connected"));
  const size_t old = board_.board.DaemonLog().size();
  board_.rpc.Post("camera.upload_timelapse_instance", params);
  EXPECT_TRUE(board_.AwaitLog("Upload timelapse progress: ", old));
  EXPECT_EQ(board_.Requests("/api/device/upload/cancel"), 0U);
  (void)board_.StopAndReadLog();
  EXPECT_EQ(board_.Requests("/api/device/upload/cancel"), 1U) << "told before the end";
  EXPECT_THAT(Copies(), IsEmpty());
}

}  // namespace
}  // namespace varnel::board
