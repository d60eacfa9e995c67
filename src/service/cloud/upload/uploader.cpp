#include "service/cloud/upload/uploader.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <strings.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <utility>

#include "service/cloud/http/http_request.h"
#include "service/cloud/upload/store_error.h"
#include "utils/log.h"
#include "utils/log_text.h"

namespace varnel::service {
namespace {

constexpr const char* kTag = "UPLD";
constexpr std::chrono::seconds kStallLimit{30};
/// From the last byte that was sent to that of the answer, once it has begun.
constexpr std::chrono::seconds kAnswerLimit{60};
/// A store that is far away judges an address before the piece is on its way.
constexpr long kJudgeLimitMs = 5000;
constexpr int64_t kConnectTimeoutS = 10;
constexpr long kSendBytes = 64L << 10;
constexpr size_t kMaxAnswerBytes = size_t{64} << 10U;
constexpr long kBadRequest = 400;
constexpr long kForbidden = 403;
constexpr long kAnswered = 200;
constexpr size_t kMaxEtag = 1024;

/// What waits in the system for a slow line looks like a stall when it is more than this.
int LimitUnsentBytes(void*, curl_socket_t socket, curlsocktype) {
  constexpr int kMost = 32 << 10;
  (void)::setsockopt(socket, IPPROTO_TCP, TCP_NOTSENT_LOWAT, &kMost, sizeof(kMost));
  return CURL_SOCKOPT_OK;
}

/// Another attempt would fail for the same reason.
bool IsOfTheAddress(CURLcode code) {
  return code == CURLE_URL_MALFORMAT || code == CURLE_LOGIN_DENIED;
}

/// Judged by us: the library has one code for other protocols and for answers that are none.
bool IsOfTheWeb(const std::string& url) {
  const auto begins = [&](std::string_view scheme) {
    return url.size() > scheme.size() &&
           ::strncasecmp(url.data(), scheme.data(), scheme.size()) == 0;
  };
  return begins("http://") || begins("https://");
}

bool HasExpired(long status, const std::string& body) {
  return status == kForbidden ||
         (status == kBadRequest && body.find("<Code>ExpiredToken</Code>") != body.npos);
}

std::string PathText(const UploadSource& source) {
  return utils::LogText(source.Path().string());
}

}  // namespace

/// Gives the bytes of a piece, keeps the answer, and watches whether anything moves.
class Uploader::Hooks : public TransferHooks {
 public:
  Hooks(const Uploader& owner, const Put& put, std::string& answer)
      : owner_(owner), put_(put), answer_(answer), moved_(owner.clock_.Now()) {}

  bool GoOn(const TransferCount& count) override {
    if (!MayGoOn()) return !(given_up_ = true);
    if (!IsStalled(count)) return true;
    VLOG_ERROR(kTag, "upload stalled, aborting");
    return false;
  }
  std::optional<size_t> Give(char* buffer, size_t room) override {
    const size_t size = std::min<uint64_t>(room, put_.part.length - sent_);
    if (!put_.source.Read(put_.part.offset + sent_, buffer, size)) {
      given_up_ = true;
      return std::nullopt;
    }
    sent_ += size;
    return size;
  }
  bool Take(const char* data, size_t size) override {
    // What is longer does not make another answer of it.
    answer_.append(data, std::min(size, kMaxAnswerBytes - answer_.size()));
    return true;
  }
  bool GivenUp() const { return given_up_; }

 private:
  /// A store may take its time for an answer, but not by one byte after the other.
  bool IsStalled(const TransferCount& count) {
    const auto now = owner_.clock_.Now();
    if (std::exchange(moved_bytes_, count.sent) != count.sent) moved_ = now;
    return now - moved_ > (count.received > 0 ? kAnswerLimit : kStallLimit);
  }
  bool MayGoOn() const {
    return !(owner_.stop_ && owner_.stop_()) && (!put_.progress || put_.progress(sent_));
  }

  const Uploader& owner_;
  const Put& put_;
  std::string& answer_;
  utils::Clock::TimePoint moved_;
  uint64_t sent_ = 0;
  curl_off_t moved_bytes_ = 0;
  bool given_up_ = false;
};

Uploader::Uploader(TransferStop stop, utils::Clock& clock)
    : stop_(std::move(stop)), clock_(clock) {}

PutResult Uploader::PutFile(const std::string& url, const UploadSource& source,
                            const std::string& checksum, const Progress& progress) {
  switch (source.Look(source.Size())) {
    case UploadSource::State::kGone:
      VLOG_ERROR(kTag, "PutFile: cannot open {}", PathText(source));
      return {};
    case UploadSource::State::kShortened:
      VLOG_ERROR(kTag, "PutFile: failed to determine file size for {}", PathText(source));
      return {};
    case UploadSource::State::kChanged:
    case UploadSource::State::kSame:
      break;
  }
  const FilePart whole{0, source.Size(), checksum};
  const Answer answer = Send({url, source, whole, progress});
  if (answer.result.status == 0) {
    VLOG_ERROR(kTag, "PUT {} failed: {}", UrlTag(url), answer.problem);
  } else if (!answer.result.IsStored()) {
    VLOG_ERROR(kTag, "PUT {} failed: HTTP {}, response: {}", UrlTag(url), answer.result.status,
               StoreErrorText(answer.body, url));
  }
  return answer.result;
}

PutResult Uploader::PutFilePart(const std::string& url, const UploadSource& source,
                                const FilePart& part, const Progress& progress) {
  switch (source.Look(part.offset + part.length)) {
    case UploadSource::State::kGone:
      VLOG_ERROR(kTag, "PutFilePart: cannot open {}", PathText(source));
      return {};
    case UploadSource::State::kShortened:
      VLOG_ERROR(kTag, "PutFilePart: seek to offset {} failed", part.offset);
      return {};
    case UploadSource::State::kChanged:
    case UploadSource::State::kSame:
      break;
  }
  const Answer answer = Send({url, source, part, progress});
  if (answer.result.status == 0) {
    VLOG_ERROR(kTag, "PutFilePart {} offset={} failed: {}", PathText(source), part.offset,
               answer.problem);
  } else if (!answer.result.IsStored()) {
    VLOG_ERROR(kTag, "PutFilePart {} failed: HTTP {}", PathText(source), answer.result.status);
  }
  return answer.result;
}

Uploader::Answer Uploader::Send(const Put& put) {
  Answer answer;
  if (!CheckUnchanged(put, answer)) return answer;
  if (!IsOfTheWeb(put.url)) {
    answer.problem = "no address of the web";
    return answer;
  }
  const utils::MutexLock turn(connections_.Turn());
  Hooks hooks(*this, put, answer.body);
  Transfer transfer(connections_, "http,https", hooks);
  const TransferResult result = Perform(transfer, put);
  using End = PutResult::End;
  // A status counts, whatever becomes of the rest of the answer.
  if (hooks.GivenUp() || transfer.Status() < kAnswered) {
    answer.problem = result.code == CURLE_OK ? "no status" : utils::LogText(result.problem);
    answer.result.end =
        hooks.GivenUp() || IsOfTheAddress(result.code) ? End::kGivenUp : End::kNoAnswer;
    return answer;
  }
  answer.result = {End::kAnswered, transfer.Status(), transfer.Header("etag"),
                   HasExpired(transfer.Status(), answer.body)};
  if (answer.result.etag.size() > kMaxEtag) answer.result.etag.clear();
  if (answer.result.IsStored()) (void)CheckUnchanged(put, answer);
  return answer;
}

TransferResult Uploader::Perform(Transfer& transfer, const Put& put) const {
  CurlHeaders lines;
  bool all = AppendHeader(lines, "Content-Type: application/octet-stream") &&
             AppendHeader(lines, ("x-amz-checksum-sha256: " + put.part.checksum).c_str());
  // The store judges the address before it gets a byte for it.
  all = all && AppendHeader(lines, put.part.length > 0 ? "Expect: 100-continue" : "Expect:");
  if (!all) return {CURLE_OUT_OF_MEMORY, curl_easy_strerror(CURLE_OUT_OF_MEMORY)};
  transfer.SendBody(static_cast<int64_t>(put.part.length));
  transfer.Set(CURLOPT_HTTPHEADER, lines.get());
  transfer.Set(CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
  transfer.Set(CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
  transfer.Set(CURLOPT_DISALLOW_USERNAME_IN_URL, 1L);  // it would become an authorization
  transfer.Set(CURLOPT_UPLOAD_BUFFERSIZE, kSendBytes);
  transfer.Set(CURLOPT_SOCKOPTFUNCTION, LimitUnsentBytes);
  transfer.Set(CURLOPT_EXPECT_100_TIMEOUT_MS, kJudgeLimitMs);
  transfer.SetSeconds(CURLOPT_CONNECTTIMEOUT, kConnectTimeoutS);
  return transfer.Perform(put.url);
}

/// Of a file that is another one by now nothing more is sent, and what was is worth nothing.
bool Uploader::CheckUnchanged(const Put& put, Answer& answer) const {
  if (put.source.Look(0) == UploadSource::State::kSame) return true;
  answer.problem = "the file has changed";
  answer.result = {};
  return false;
}

}  // namespace varnel::service
