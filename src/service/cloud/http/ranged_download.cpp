#include "service/cloud/http/ranged_download.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <charconv>

#include "service/cloud/http/download_options.h"
#include "service/cloud/http/http_request.h"
#include "service/cloud/http/stall_guard.h"
#include "utils/log.h"
#include "utils/log_text.h"

namespace varnel::service {
namespace {

constexpr const char* kTag = "DOWN";
constexpr long kOk = 200;
constexpr long kPartial = 206;
constexpr size_t kMaxValidator = 512;

/// The value of this header, without its blanks; nothing for another one.
std::optional<std::string_view> ValueOf(std::string_view line, std::string_view name) {
  const auto same = [](char a, char b) { return (a | 0x20) == (b | 0x20); };
  if (line.size() <= name.size() || line[name.size()] != ':' ||
      !std::equal(name.begin(), name.end(), line.begin(), same))
    return std::nullopt;
  line.remove_prefix(name.size() + 1);
  const size_t first = line.find_first_not_of(" \t");
  if (first == line.npos) return std::string_view();
  return line.substr(first, line.find_last_not_of(" \t\r\n") + 1 - first);
}

std::optional<int64_t> Number(std::string_view text) {
  int64_t value = 0;
  const auto end = text.data() + text.size();
  const auto result = std::from_chars(text.data(), end, value);
  if (text.empty() || result.ec != std::errc() || result.ptr != end || value < 0)
    return std::nullopt;
  return value;
}

/// "bytes FIRST-LAST/SIZE"; the size may be "*".
struct ContentRange {
  int64_t first = 0;
  std::optional<int64_t> size;

  static std::optional<ContentRange> Read(std::string_view text) {
    constexpr std::string_view kUnit = "bytes ";
    const size_t dash = text.find('-');
    const size_t slash = text.find('/');
    if (!text.starts_with(kUnit) || dash == text.npos || slash == text.npos || slash < dash)
      return std::nullopt;
    const auto first = Number(text.substr(kUnit.size(), dash - kUnit.size()));
    if (!first) return std::nullopt;
    return ContentRange{*first, Number(text.substr(slash + 1))};
  }
};

/// What the headers of one answer say.
struct Answer {
  long status = 0;
  std::string etag;
  std::string last_modified;
  std::optional<int64_t> length;
  std::optional<ContentRange> range;

  void Read(std::string_view line) {
    if (line.starts_with("HTTP/")) {
      *this = {};
      const size_t blank = line.find(' ');
      if (blank != line.npos) status = Number(line.substr(blank + 1, 3)).value_or(0);
    } else if (const auto tag = ValueOf(line, "ETag")) {
      etag = *tag;
    } else if (const auto date = ValueOf(line, "Last-Modified")) {
      last_modified = *date;
    } else if (const auto bytes = ValueOf(line, "Content-Length")) {
      length = Number(*bytes);
    } else if (const auto part = ValueOf(line, "Content-Range")) {
      range = ContentRange::Read(*part);
    }
  }
  /// A weak ETag does not stand for the same bytes.
  [[nodiscard]] std::string Validator() const {
    const std::string& best = etag.starts_with('"') ? etag : last_modified;
    return best.size() <= kMaxValidator ? best : std::string();
  }
};

}  // namespace

bool RangeResult::IsNetwork() const {
  constexpr std::array kCodes{
      CURLE_COULDNT_RESOLVE_HOST, CURLE_COULDNT_CONNECT,
      CURLE_PARTIAL_FILE,         CURLE_OPERATION_TIMEDOUT,
      CURLE_SSL_CONNECT_ERROR,    CURLE_GOT_NOTHING,
      CURLE_SEND_ERROR,           CURLE_RECV_ERROR,
      CURLE_ABORTED_BY_CALLBACK,  CURLE_PEER_FAILED_VERIFICATION,
      CURLE_WEIRD_SERVER_REPLY,
  };
  return std::find(kCodes.begin(), kCodes.end(), code) != kCodes.end();
}

/// Tells the sink what comes before it comes.
class RangedDownloader::Hooks : public TransferHooks {
 public:
  Hooks(const RangedDownloader& owner, const RangeRequest& request, RangeSink& sink)
      : owner_(owner),
        request_(request),
        sink_(sink),
        guard_(owner.clock_, request.stall_limit_s) {}

  void Header(std::string_view line) override { answer_.Read(line); }
  bool GoOn(const TransferCount& count) override {
    if (owner_.stop_ && owner_.stop_()) return false;
    if (!guard_.GoesOn(count.received)) return false;
    return !guard_.IsNewSecond() || sink_.GoOn(position_);
  }
  bool Take(const char* data, size_t size) override {
    if (!Begun()) return false;
    too_long_ = static_cast<int64_t>(size) > request_.max_bytes - position_;
    if (too_long_) return false;
    position_ += static_cast<int64_t>(size);
    return sink_.Take(data, size);
  }
  /// Also of an answer without a body.
  bool Begun() {
    if (begun_) return true;
    const bool whole = answer_.status == kOk;
    wrong_range_ = answer_.status == kPartial && !IsAskedFor();
    if (wrong_range_ || (!whole && answer_.status != kPartial)) return false;
    const auto& range = answer_.range;
    position_ = whole ? 0 : range->first;
    begun_ = sink_.Begin({position_, whole ? answer_.length : range->size, answer_.Validator()});
    return begun_;
  }
  [[nodiscard]] bool TooLong() const { return too_long_; }
  [[nodiscard]] bool WrongRange() const { return wrong_range_; }

 private:
  /// The next bytes of the same file.
  [[nodiscard]] bool IsAskedFor() const {
    const auto& range = answer_.range;
    const std::string validator = answer_.Validator();
    return range && request_.offset > 0 && range->first == request_.offset &&
           range->size.value_or(request_.max_bytes) == request_.max_bytes &&
           (validator.empty() || validator == request_.validator);
  }

  const RangedDownloader& owner_;
  const RangeRequest& request_;
  RangeSink& sink_;
  StallGuard guard_;
  Answer answer_;
  int64_t position_ = 0;
  bool begun_ = false;
  bool too_long_ = false;
  bool wrong_range_ = false;
};

RangedDownloader::RangedDownloader(TransferStop stop, utils::Clock& clock)
    : stop_(std::move(stop)), clock_(clock) {}

RangeResult RangedDownloader::Download(const RangeRequest& request, RangeSink& sink) {
  const utils::MutexLock turn(connections_.Turn());
  Hooks hooks(*this, request, sink);
  Transfer transfer(connections_, "http,https", hooks);
  SetDownloadOptions(transfer);
  CurlHeaders lines;
  if (request.offset > 0) {
    transfer.Set(CURLOPT_RANGE, fmt::format("{}-", request.offset).c_str());
    const std::string condition = "If-Range: " + request.validator;
    if (!IsHeaderLine(condition))
      return {CURLE_BAD_FUNCTION_ARGUMENT, 0, "a header cannot be sent"};
    lines.reset(curl_slist_append(nullptr, condition.c_str()));
    transfer.Set(CURLOPT_HTTPHEADER, lines.get());
  }
  const TransferResult done = transfer.Perform(request.url);
  RangeResult result{done.code, transfer.Status(), done.problem, false, false};
  // An answer without a body has not begun yet.
  if (result.code == CURLE_OK && !hooks.Begun()) result.code = CURLE_WRITE_ERROR;
  result.wrong_range = hooks.WrongRange();
  result.too_long = hooks.TooLong();
  if (result.code != CURLE_OK && result.code != CURLE_ABORTED_BY_CALLBACK)
    VLOG_ERROR(kTag, "Download failed: {} {}", result.code, utils::LogText(result.problem));
  return result;
}

}  // namespace varnel::service
