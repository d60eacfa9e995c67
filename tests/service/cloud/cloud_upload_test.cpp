#include "service/cloud/upload/cloud_upload.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <atomic>
#include <deque>
#include <fstream>
#include <map>
#include <mutex>

#include "service/cloud/http/http_request.h"
#include "service/cloud/scripted_server.h"
#include "support/fake_clock.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace varnel::service {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using test::ScriptedServer;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::Not;
using Calls = std::vector<std::string>;

constexpr const char* kSecret = "planted-in-an-address-for-tests";

/// An API that signs, and a store that takes, until a test has it do otherwise.
class CloudUploadTest : public testing::Test {
 protected:
  std::string Api(const std::string& path, const json& asked, const RequestOptions& options) {
    std::string call = path.substr(path.rfind('/') + 1);
    if (call == "cancel") cancels_ended_.push_back(options.stop());
    if (call == "create" && asked.contains("uploadId"))
      call = "re-sign " + asked["uploadParts"][0]["partNumber"].dump();
    calls_.Put(call);
    if (const auto found = replies_.find(call); found != replies_.end()) return found->second;
    json data{{"url", call == "create" ? PartUrl(0) : "https://stored.test/x"}};
    if (call != "completed") data["uploadId"] = "u1";
    for (const json& part : asked.value("uploadParts", json::array())) {
      data["uploadParts"].push_back(
          {{"partNumber", part["partNumber"]}, {"url", PartUrl(part["partNumber"].get<int>())}});
    }
    return json{{"code", 200}, {"data", data}}.dump();
  }
  std::string PartUrl(int number) {
    return store_.Url("/o/" + std::to_string(number) + "?Signature=" + kSecret);
  }
  /// Meets one PUT: a status with a body, an end without an answer, or nothing of both.
  bool Store(const std::string& request, const ScriptedServer::Peer& peer) {
    const std::string call = "PUT " + request.substr(7, 1);
    calls_.Put(call);
    const auto [fault, body, meanwhile] = NextMeeting();
    meanwhile();
    if (fault == "reset") peer.ResetAtEnd();
    if (fault == "reset" || fault == "lost") return false;
    if (fault == "stall") {
      clock_.Advance(std::chrono::seconds(31));
      peer.AwaitEnd();
      return false;
    }
    if (fault == "hang") return (peer.AwaitEnd(), false);
    if (fault == "no etag") return peer.Answer("");
    if (fault == "no http" || fault == "099" || fault == "403 and an end") {
      peer.ResetAtEnd();
      (void)peer.Send(fault == "no http" ? "<html>sign in</html>"
                                         : "HTTP/1.1 " + fault + "\r\nContent-Length: 9\r\n\r\n<E");
      return false;
    }
    if (!fault.empty()) return peer.Answer(body, fault);
    return peer.Send("HTTP/1.1 200 OK\r\nETag: \"e" + call.substr(4) +
                     "\"\r\nContent-Length: 0\r\n\r\n");
  }
  struct Meeting {
    std::string fault;
    std::string body;
    std::function<void()> meanwhile;
  };
  Meeting NextMeeting() {
    const std::lock_guard lock(script_mutex_);
    Meeting next{"", body_, meanwhile_};
    if (faults_.empty()) return next;
    next.fault = faults_.front();
    faults_.pop_front();
    return next;
  }
  /// What the next PUTs meet; those that follow are taken.
  void Meet(std::deque<std::string> faults, const std::string& body = "") {
    const std::lock_guard lock(script_mutex_);
    faults_ = std::move(faults);
    body_ = body;
  }
  /// What happens while a PUT is served.
  void Meanwhile(std::function<void()> change) {
    const std::lock_guard lock(script_mutex_);
    meanwhile_ = std::move(change);
  }
  std::optional<std::string> Upload(size_t bytes = kTwoParts) {
    file_ = dir_.Write("file", std::string(bytes, 'x'));
    return upload_.Upload({.file = file_,
                           .name = "f",
                           .progress =
                               [this](uint64_t sent, uint64_t) {
                                 told_.push_back(sent);
                                 return goes_on_.load();
                               },
                           .stop = [this] { return stopped_.load(); }});
  }
  bool Logged(const std::string& text, const char* tag = "CLDI") { return log_.Has(tag, text); }

  static constexpr size_t kTwoParts = 5'242'881;

  test::TempDir dir_;
  test::LogCapture log_;
  test::FakeClock clock_;
  test::Mailbox<std::string> calls_;
  std::map<std::string, std::string> replies_;
  std::mutex script_mutex_;
  std::deque<std::string> faults_;           // script_mutex_
  std::string body_;                         // script_mutex_
  std::function<void()> meanwhile_ = [] {};  // script_mutex_
  std::vector<uint64_t> told_;
  std::atomic<bool> goes_on_ = true;
  std::atomic<bool> stopped_ = false;
  std::vector<bool> cancels_ended_;
  fs::path file_;
  ScriptedServer store_{
      [this](const auto& request, const auto& peer) { return Store(request, peer); }};
  CloudUpload upload_{{[] { return true; },
                       [this](const auto& path, const json& asked, const RequestOptions& options) {
                         return Api(path, asked, options);
                       }},
                      nullptr,
                      clock_};
};

TEST_F(CloudUploadTest, APartIsSentAgainAsOftenAsItMay) {
  struct Case {
    std::deque<std::string> faults;
    std::string body;
    Calls calls;
    std::string text;
  };
  const std::string expired = "<Error><Code>ExpiredToken</Code></Error>";
  const Calls given_up{"create", "PUT 1", "cancel"};
  const std::string again = "Part 1 network error, retrying";
  const std::string signing = "Part 1 URL expired (HTTP 403), re-signing";
  const std::vector<Case> cases{
      {{"reset"}, "", {"create", "PUT 1", "PUT 1", "PUT 2", "completed"}, again},
      {{"stall"}, "", {"create", "PUT 1", "PUT 1", "PUT 2", "completed"}, again},
      {{"no http", "099"}, "", {"create", "PUT 1", "PUT 1", "PUT 1", "PUT 2", "completed"}, again},
      {{"403 and an end"},
       "",
       {"create", "PUT 1", "re-sign 1", "PUT 1", "PUT 2", "completed"},
       signing},
      {{"", "lost"},
       "",
       {"create", "PUT 1", "PUT 2", "PUT 2", "completed"},
       "Part 2 network error, retrying"},
      {{"reset", "lost", "reset", "reset"},
       "",
       {"create", "PUT 1", "PUT 1", "PUT 1", "PUT 1", "cancel"},
       "PUT part 1 failed (HTTP 0), aborting"},
      {{"403 No"}, "", {"create", "PUT 1", "re-sign 1", "PUT 1", "PUT 2", "completed"}, signing},
      {{"400 No"},
       expired,
       {"create", "PUT 1", "re-sign 1", "PUT 1", "PUT 2", "completed"},
       "Part 1 URL expired (HTTP 400), re-signing"},
      {{"403 No", "403 No", "403 No", "403 No"},
       "",
       {"create", "PUT 1", "re-sign 1", "PUT 1", "re-sign 1", "PUT 1", "re-sign 1", "PUT 1",
        "cancel"},
       "PUT part 1 failed (HTTP 403), aborting"},
      {{"400 No"}, "", given_up, "PUT part 1 failed (HTTP 400), aborting"},
      {{"503 No"},
       expired + std::string(100'000, ' '),
       given_up,
       "PUT part 1 failed (HTTP 503), aborting"},
      {{"301 No"}, "", given_up, "PUT part 1 failed (HTTP 301), aborting"},
      {{"no etag"}, "", given_up, "PUT part 1 failed (HTTP 200), aborting"},
  };
  for (const Case& one : cases) {
    const size_t old = calls_.Items().size();
    const auto begin = clock_.Elapsed();
    Meet(one.faults, one.body);
    EXPECT_EQ(Upload().has_value(), one.calls.back() == "completed") << one.faults.front();
    auto calls = calls_.Items();
    calls.erase(calls.begin(), calls.begin() + static_cast<std::ptrdiff_t>(old));
    EXPECT_THAT(calls, ElementsAreArray(one.calls)) << one.faults.front();
    EXPECT_TRUE(Logged(one.text)) << one.text;
    if (one.text.ends_with("(HTTP 0), aborting")) {
      EXPECT_EQ(clock_.Elapsed() - begin, std::chrono::seconds(7));
    }
  }
  EXPECT_TRUE(Logged("upload stalled, aborting", "UPLD"));
  EXPECT_TRUE(Logged("PutFilePart " + file_.string() + " failed: HTTP 503", "UPLD"));
  EXPECT_THAT(log_.Text(), Not(HasSubstr(kSecret)));
}

TEST_F(CloudUploadTest, AFileGoesWholeOrInParts) {
  const std::map<size_t, std::vector<size_t>> sizes{
      {0, {0}},
      {1, {1}},
      {1'048'575, {1'048'575}},
      {1'048'576, {1'048'576}},
      {10'485'761, {5'242'880, 5'242'880, 1}},
  };
  for (const auto& [bytes, parts] : sizes) {
    const size_t old = store_.requests.Items().size();
    const size_t connections = store_.connections.Items().size();
    EXPECT_EQ(Upload(bytes), "https://stored.test/x");
    const auto requests = store_.requests.Items();
    ASSERT_EQ(requests.size() - old, parts.size()) << bytes;
    for (size_t i = 0; i < parts.size(); ++i) {
      const std::string& request = requests[old + i];
      const size_t end = request.find("\r\n\r\n") + 2;
      EXPECT_EQ(request.size() - end - 2, parts[i]);
      EXPECT_THAT(request.substr(0, end),
                  testing::AllOf(HasSubstr("\r\nContent-Type: application/octet-stream\r\n"),
                                 HasSubstr("\r\nContent-Length: " + std::to_string(parts[i])),
                                 HasSubstr("\r\nx-amz-checksum-sha256: "),
                                 Not(HasSubstr("Authorization")), Not(HasSubstr("chunked"))));
      EXPECT_TRUE(
          request.starts_with(bytes < 1'048'576 ? "PUT /o/0" : "PUT /o/" + std::to_string(i + 1)));
    }
    EXPECT_EQ(store_.connections.Items().size() - connections, 1U);
    EXPECT_EQ(calls_.Items().back(), "completed");
  }
  EXPECT_THAT(store_.requests.Items().front(),
              HasSubstr("sha256: 47DEQpj8HBSa+/TImW+5JCeuQeRkm5NMpJWZG3hSuFU=\r\n"));
}

TEST_F(CloudUploadTest, WhatTheApiMayAnswer) {
  const std::string part = R"({"partNumber": 1, "url": ")" + PartUrl(1) + R"("})";
  const auto of = [](const std::string& parts) {
    return R"({"code": 200, "data": {"uploadId": "u", "parts": [)" + parts + "]}}";
  };
  const std::string missing = "server did not return URL for part 2, aborting";
  const std::vector<std::tuple<std::string, std::string, std::string>> cases{
      {"create", "", "multipart upload/create failed"},
      {"create", "<html>", "multipart upload/create parse error: the answer is no JSON object"},
      {"create", R"({"code": 500, "msg": "full"})", "multipart upload/create error: full"},
      {"create", R"({"code": "200", "msg": "text", "data": {}})",
       "multipart upload/create error: text"},
      {"create", R"({"code": 200, "msg": "no id", "data": {"parts": []}})",
       "multipart upload/create error: no id"},
      {"create", of(part), missing},
      {"create", of(part + ',' + part), missing},
      {"completed", "", "multipart upload/completed failed"},
      {"completed", R"({"code": 409, "msg": "order"})", "multipart upload/completed error: order"},
      {"completed", "<html>",
       "multipart upload/completed parse error: the answer is no JSON object"},
      {"re-sign 1", "", "re-sign request failed"},
      {"re-sign 1", "{", "re-sign parse error: the answer is no JSON object"},
      {"re-sign 1", R"({"code": 403, "msg": "Bearer )" + std::string(40, 'T') + R"( no"})",
       "re-sign error: Bearer " + std::string(40, '*') + " no"},
      {"re-sign 1", of(""), "Re-sign for part 1 failed, aborting"},
  };
  for (const auto& [call, reply, text] : cases) {
    const size_t old = calls_.Items().size();
    replies_ = {{call, reply}};
    Meet(std::deque<std::string>(call == "re-sign 1" ? 1 : 0, "403 No"));
    EXPECT_FALSE(Upload()) << text;
    EXPECT_TRUE(Logged(text)) << text;
    const auto calls = calls_.Items();
    const auto cancels =
        std::count(calls.begin() + static_cast<std::ptrdiff_t>(old), calls.end(), "cancel");
    EXPECT_EQ(cancels, text.starts_with("multipart upload/create") ? 0 : 1) << text;
  }
  for (const auto& [call, reply, text] :
       std::vector<std::tuple<const char*, const char*, const char*>>{
           {"create", "", "upload/create failed"},
           {"create", "[]", "upload/create parse error: the answer is no JSON object"},
           {"create", R"({"code": 200, "msg": "none"})", "upload/create error: none"},
           {"completed", "", "upload/completed failed"},
           {"completed", R"({"code": 1, "msg": "no"})", "upload/completed error: no"}}) {
    replies_ = {{call, reply}};
    EXPECT_FALSE(Upload(10)) << text;
    EXPECT_EQ(log_.Count("CLDI", text), 1U) << text;
  }
  replies_ = {{"create", of(R"({"partNumber": 2, "url": ")" + PartUrl(2) + R"("},)" + part)},
              {"completed", R"({"code": 200})"}};
  EXPECT_EQ(Upload(), "") << "out of order, and stored at no address";
}

TEST_F(CloudUploadTest, AFileThatChangesMeanwhileIsNotStored) {
  const std::vector<std::function<void()>> changes{
      [this] { fs::resize_file(file_, 5'242'880); },
      [this] { fs::resize_file(file_, 100); },
      [this] { std::ofstream(file_, std::ios::app) << "more"; },
      [this] { fs::remove(file_); },
      [this] {
        dir_.Write("other", std::string(kTwoParts, 'x'));
        fs::rename(dir_ / "other", file_);
      },
      [this] {
        struct stat before {};
        ASSERT_EQ(::stat(file_.c_str(), &before), 0);
        std::fstream(file_, std::ios::in | std::ios::out) << "y";
        const std::array<timespec, 2> times{before.st_atim, before.st_mtim};
        ASSERT_EQ(::utimensat(AT_FDCWD, file_.c_str(), times.data(), 0), 0);
      },
  };
  for (const auto& change : changes) {
    Meanwhile(change);
    EXPECT_FALSE(Upload());
    EXPECT_FALSE(Upload(10)) << "the change is of a small file";
  }
  const auto calls = calls_.Items();
  EXPECT_THAT(calls, Not(testing::Contains("completed")));
  EXPECT_THAT(calls, Not(testing::Contains("PUT 2")));
  EXPECT_EQ(std::count(calls.begin(), calls.end(), "cancel"), 6);
}

TEST_F(CloudUploadTest, ASmallFileIsSentOnceAndSecretsStaySecret) {
  Meet({"403 No"}, "<Error><Code>SignatureDoesNotMatch</Code><Message>Got " + std::string(kSecret) +
                       "</Message><StringToSign>" + kSecret + "</StringToSign></Error>");
  EXPECT_FALSE(Upload(10));
  EXPECT_TRUE(Logged("PUT " + UrlTag(PartUrl(0)) +
                         " failed: HTTP 403, response: SignatureDoesNotMatch: Got " +
                         std::string(std::string(kSecret).size(), '*'),
                     "UPLD"));
  Meet({"500 No", "lost"}, std::string(140, '-') + kSecret);  // cut within the secret
  EXPECT_FALSE(Upload(10));
  EXPECT_FALSE(Upload(10));
  EXPECT_THAT(log_.Text(), Not(HasSubstr(std::string(kSecret).substr(0, 8))));
  const fs::path planted = dir_ / "planted";
  for (const std::string& url :
       {"file://" + planted.string(), "http://u:p@127.0.0.1/" + store_.Url()}) {
    replies_ = {{"create", json{{"code", 200}, {"data", {{"url", url}}}}.dump()}};
    EXPECT_FALSE(Upload(10));
  }
  EXPECT_FALSE(fs::exists(planted));
  EXPECT_EQ(log_.Count("CLDI", "PUT file failed"), 5U);
  const auto calls = calls_.Items();
  EXPECT_EQ(std::count(calls.begin(), calls.end(), "PUT 0"), 3);
  EXPECT_FALSE(upload_.Upload({.file = dir_ / "none", .name = "f"}));
  EXPECT_TRUE(Logged("Cannot stat " + (dir_ / "none").string() + ": No such file or directory"));
}

TEST_F(CloudUploadTest, ProgressIsOfTheWholeFileAndMayCancel) {
  Meanwhile([this] { clock_.Advance(std::chrono::seconds(2)); });
  Meet({"", "reset"});
  ASSERT_TRUE(Upload());
  EXPECT_TRUE(std::is_sorted(told_.begin(), told_.end()));
  EXPECT_EQ(told_.back(), kTwoParts);
  EXPECT_THAT(told_, testing::Contains(testing::AllOf(testing::Gt(0U), testing::Lt(kTwoParts))));
  goes_on_ = false;
  EXPECT_FALSE(Upload());
  goes_on_ = true;
  Meanwhile([this] { stopped_ = true; });
  Meet({"hang"});
  EXPECT_FALSE(Upload()) << "it hangs, and is stopped";
  EXPECT_EQ(cancels_ended_, (std::vector{false, false})) << "there is time to tell the server";
  const auto calls = calls_.Items();
  EXPECT_EQ(calls.back(), "cancel");
  EXPECT_EQ(std::count(calls.begin(), calls.end(), "completed"), 1);
}

}  // namespace
}  // namespace varnel::service
