#include "service/cloud/http/file_downloader.h"

#include <gmock/gmock.h>

#include <atomic>

#include "service/cloud/scripted_server.h"
#include "support/fake_clock.h"
#include "support/full_disk.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace varnel::service {
namespace {

using test::ScriptedServer;
using testing::HasSubstr;
using testing::Not;

constexpr double kStallS = 60;

class FileDownloaderTest : public testing::Test {
 protected:
  int Fetch(const std::string& url, const FileDownloader::Progress& progress = nullptr) {
    return downloader_.Download(url, file_, progress, kStallS);
  }

  test::LogCapture log_;
  test::TempDir dir_;
  test::FakeClock clock_;
  const std::filesystem::path file_ = dir_ / "file";
  bool stop_ = false;
  bool has_space_ = true;
  FileDownloader downloader_{"test", [this] { return stop_; },
                             [this](const std::filesystem::path&) { return has_space_; }, clock_};
};

TEST_F(FileDownloaderTest, ProgressIsToldOnceASecondWhileTheSizeIsKnown) {
  const std::string content(400'000, 'x');
  test::Mailbox<int64_t> told;
  ScriptedServer server([&](const std::string& request, const ScriptedServer::Peer& peer) {
    if (request.starts_with("GET /known")) return peer.Answer(content);
    const bool halves = request.starts_with("GET /halves");
    (void)peer.Send("HTTP/1.1 200 OK\r\n" +
                    std::string(halves ? "Content-Length: 400000\r\n" : "") + "\r\n" +
                    content.substr(0, 200'000));
    if (halves) {
      (void)told.WaitFor(2);
      clock_.Advance(std::chrono::seconds(1));
    }
    (void)peer.Send(content.substr(200'000));
    return false;
  });
  const auto note = [&](double percent, int64_t received, int64_t expected) {
    EXPECT_EQ(expected, 400'000);
    EXPECT_DOUBLE_EQ(percent, static_cast<double>(received) / 4000);
    told.Put(received);
  };
  EXPECT_EQ(Fetch(server.Url("/known"), note), 0);
  EXPECT_EQ(told.Items().size(), 1U) << "no second has passed";
  EXPECT_EQ(test::ReadFile(file_), content);
  EXPECT_EQ(Fetch(server.Url("/unknown"), note), 0);
  EXPECT_EQ(told.Items().size(), 1U);
  EXPECT_EQ(test::ReadFile(file_), content);
  EXPECT_EQ(Fetch(server.Url("/halves"), note), 0);
  EXPECT_EQ(told.Items().size(), 3U) << "once for each second";
  EXPECT_LT(told.Items()[1], told.Items()[2]);
}

TEST_F(FileDownloaderTest, AStallEndsItWithoutAnErrorLine) {
  ScriptedServer server([&](const std::string& request, const ScriptedServer::Peer& peer) {
    if (request.starts_with("GET /silent")) {
      clock_.Advance(std::chrono::seconds(61));
    } else {
      (void)peer.Send("HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\nhalf");
    }
    peer.AwaitEnd();
    return false;
  });
  EXPECT_EQ(Fetch(server.Url("/silent")), CURLE_ABORTED_BY_CALLBACK) << "before the first byte";
  EXPECT_EQ(Fetch(server.Url(),
                  [&](double, int64_t, int64_t) { clock_.Advance(std::chrono::seconds(61)); }),
            CURLE_ABORTED_BY_CALLBACK);
  EXPECT_EQ(test::ReadFile(file_), "half");
  has_space_ = false;
  EXPECT_EQ(Fetch(server.Url()), CURLE_ABORTED_BY_CALLBACK) << "no room";
  stop_ = true;
  EXPECT_EQ(Fetch(server.Url()), CURLE_ABORTED_BY_CALLBACK);
  EXPECT_THAT(log_.Text(), Not(HasSubstr("Download failed")));
}

TEST_F(FileDownloaderTest, EveryFailureIsTold) {
  std::atomic<size_t> offset{0};  // the server's threads read it
  const std::string answer = "HTTP/1.1 200 OK\r\nContent-Length: 40\r\n\r\n" + std::string(40, 'x');
  ScriptedServer server([&](const std::string& request, const ScriptedServer::Peer& peer) {
    if (request.starts_with("GET /cut")) {
      (void)peer.Send(answer.substr(0, offset));
      return false;
    }
    if (request.starts_with("GET /none")) return peer.Answer("<html>", "404 Not Found");
    const std::string target = request.starts_with("GET /file") ? "file:///etc/hostname" : "/round";
    return peer.Send("HTTP/1.1 302 Found\r\nContent-Length: 0\r\nLocation: " + target + "\r\n\r\n");
  });
  for (; offset < answer.size(); ++offset) ASSERT_NE(Fetch(server.Url("/cut")), 0) << offset;
  EXPECT_EQ(test::ReadFile(file_), std::string(39, 'x')) << "what was fetched stays";
  EXPECT_EQ(Fetch(server.Url("/none")), CURLE_HTTP_RETURNED_ERROR);
  EXPECT_EQ(test::ReadFile(file_), "");
  EXPECT_EQ(Fetch(server.Url("/file")), CURLE_UNSUPPORTED_PROTOCOL);
  const size_t before = server.requests.Items().size();
  EXPECT_EQ(Fetch(server.Url("/round")), CURLE_TOO_MANY_REDIRECTS);
  EXPECT_EQ(server.requests.Items().size(), before + 11);
  EXPECT_THAT(log_.Text(), HasSubstr("Download failed: 47 Maximum (10) redirects followed"));
  for (const auto& unusable : {dir_ / "no/such", dir_.Path(), std::filesystem::path("/dev/null")})
    EXPECT_EQ(downloader_.Download(server.Url(), unusable, nullptr, kStallS), 1);
  const std::string source = "file://" + dir_.Write("source", std::string(100'000, 's')).string();
  EXPECT_EQ(Fetch(source), 0);
  const test::FullDisk full(5000);
  EXPECT_EQ(Fetch(source), CURLE_WRITE_ERROR);
}

TEST(FileDownloaderUrl, OnlyKnownSchemesAreAccepted) {
  for (const char* good : {"http://a", "https://a", "ftp://a", "file:///a"})
    EXPECT_TRUE(FileDownloader::IsAcceptedUrl(good)) << good;
  for (const char* bad : {"", "HTTP://a", "http:/a", "gopher://a", " http://a", "a"})
    EXPECT_FALSE(FileDownloader::IsAcceptedUrl(bad)) << bad;
}

}  // namespace
}  // namespace varnel::service
