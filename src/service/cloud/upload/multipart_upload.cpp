#include "service/cloud/upload/multipart_upload.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <utility>

#include "utils/log.h"
#include "utils/log_text.h"

namespace varnel::service {
namespace {

using nlohmann::json;
using std::chrono::milliseconds;

constexpr const char* kTag = "CLDI";
constexpr uint64_t kPartBytes = 5'242'880;
constexpr int kRepeats = 3;
constexpr int kSignatures = 3;
constexpr milliseconds kFirstPause{1000};
constexpr milliseconds kStopLook{250};
/// For telling the server of the end, and what is left of it when nobody wants to wait.
constexpr milliseconds kCancelTime{15'000};
constexpr milliseconds kLastTime{1500};

/// The parts that an answer lists; null without any.
const json* ListIn(const json& data) {
  for (const char* name : {"uploadParts", "parts"}) {
    const auto found = data.is_object() ? data.find(name) : data.end();
    if (data.is_object() && found != data.end() && found->is_array() && !found->empty())
      return &*found;
  }
  return nullptr;
}

/// Calls with the number and the address of each part that has both.
template <class Call>
void ForEachAddress(const json& data, Call call) {
  const json* list = ListIn(data);
  if (list == nullptr) return;
  for (const json& part : *list) {
    const std::string url = TextMember(part, "url");
    if (url.empty() || !part.contains("partNumber")) continue;
    const json& number = part["partNumber"];
    if (number.is_number_unsigned()) call(number.get<uint64_t>(), url);
  }
}

}  // namespace

MultipartUpload::MultipartUpload(const UploadTools& tools) : tools_(tools) {}

std::optional<std::string> MultipartUpload::Run() {
  if (!ComputeChecksums()) {
    VLOG_ERROR(kTag, "Failed to compute checksums for {}",
               utils::LogText(tools_.source.Path().string()));
    return std::nullopt;
  }
  try {
    if (!Create()) return std::nullopt;
    auto url = SendAndComplete();
    if (!url) Cancel();
    return url;
  } catch (...) {
    if (!upload_id_.empty()) Cancel();
    throw;
  }
}

bool MultipartUpload::ComputeChecksums() {
  for (uint64_t offset = 0; offset < tools_.source.Size(); offset += kPartBytes) {
    const uint64_t length = std::min(kPartBytes, tools_.source.Size() - offset);
    auto checksum = tools_.source.Checksum(offset, length, tools_.options.stop);
    if (!checksum || !tools_.progress.Tell(0)) return false;
    parts_.push_back({{offset, length, std::move(*checksum)}});
  }
  return true;
}

json MultipartUpload::DescriptionOf(size_t number) const {
  return {{"partNumber", number}, {"checkSum", parts_[number - 1].piece.checksum}};
}

bool MultipartUpload::Create() {
  json descriptions = json::array();
  for (size_t number = 1; number <= parts_.size(); ++number)
    descriptions.push_back(DescriptionOf(number));
  const auto data =
      AskUploadApi(tools_.api, tools_.options,
                   {"multipart upload/create", "multipart upload/create", kUploadCreate},
                   {{"fileName", tools_.name}, {"uploadParts", std::move(descriptions)}},
                   [](const json& given) { return !TextMember(given, "uploadId").empty(); });
  if (!data) return false;
  upload_id_ = TextMember(*data, "uploadId");
  ForEachAddress(*data, [this](uint64_t number, const std::string& url) {
    if (number >= 1 && number <= parts_.size() && PartOf(number).url.empty())
      PartOf(number).url = url;
  });
  return true;
}

std::optional<std::string> MultipartUpload::SendAndComplete() {
  for (size_t number = 1; number <= parts_.size(); ++number) {
    if (PartOf(number).url.empty()) {
      VLOG_ERROR(kTag, "server did not return URL for part {}, aborting", number);
      return std::nullopt;
    }
    if (!SendPart(number)) return std::nullopt;
  }
  return CompleteUpload(tools_.api, tools_.options, "multipart upload/completed", Completion());
}

json MultipartUpload::Completion() const {
  json sent = json::array();
  for (size_t number = 1; number <= parts_.size(); ++number)
    sent.push_back({{"partNumber", number}, {"etag", parts_[number - 1].etag}});
  return {{"fileName", tools_.name}, {"uploadId", upload_id_}, {"uploadParts", std::move(sent)}};
}

bool MultipartUpload::SendPart(size_t number) {
  Part& part = PartOf(number);
  Attempts attempts;
  for (;;) {
    const PutResult put = tools_.uploader.PutFilePart(
        part.url, tools_.source, part.piece,
        [&](uint64_t sent) { return tools_.progress.Tell(part.piece.offset + sent); });
    if (put.IsStored() && !put.etag.empty()) {
      part.etag = put.etag;
      return true;
    }
    if (!TryAgain(number, put, attempts)) return false;
  }
}

/// False, with the reason in the log, when the part cannot be sent.
bool MultipartUpload::TryAgain(size_t number, const PutResult& put, Attempts& attempts) {
  using End = PutResult::End;
  if (put.end == End::kNoAnswer && attempts.repeats < kRepeats) {
    VLOG_WARN(kTag, "Part {} network error, retrying", number);
    return Pause(kFirstPause * (1 << attempts.repeats++), PartOf(number).piece.offset);
  }
  if (put.end == End::kAnswered && put.expired && attempts.signatures++ < kSignatures) {
    VLOG_WARN(kTag, "Part {} URL expired (HTTP {}), re-signing", number, put.status);
    if (SignAgain(number)) return true;
    VLOG_ERROR(kTag, "Re-sign for part {} failed, aborting", number);
    return false;
  }
  VLOG_ERROR(kTag, "PUT part {} failed (HTTP {}), aborting", number, put.status);
  return false;
}

bool MultipartUpload::SignAgain(size_t number) {
  std::string fresh;
  const auto take = [&](uint64_t given, const std::string& url) {
    if (given == number && fresh.empty()) fresh = url;
  };
  const auto data =
      AskUploadApi(tools_.api, tools_.options, {"re-sign", "re-sign request", kUploadCreate},
                   {{"fileName", tools_.name},
                    {"uploadId", upload_id_},
                    {"uploadParts", json::array({DescriptionOf(number)})}},
                   [&](const json& given) {
                     ForEachAddress(given, take);
                     return !fresh.empty();
                   });
  if (data) PartOf(number).url = fresh;
  return data.has_value();
}

/// False when the upload is to end meanwhile.
bool MultipartUpload::Pause(milliseconds time, uint64_t sent_bytes) {
  for (milliseconds left = time; left.count() > 0; left -= kStopLook) {
    if ((tools_.options.stop && tools_.options.stop()) || !tools_.progress.Tell(sent_bytes))
      return false;
    tools_.clock.SleepFor(std::min(left, kStopLook));
  }
  return true;
}

void MultipartUpload::Cancel() {
  RequestOptions options = tools_.options;
  options.is_last = true;
  options.stop = [this, begin = tools_.clock.Now(),
                  stopped = utils::Clock::TimePoint::max()]() mutable {
    const auto now = tools_.clock.Now();
    const TransferStop& stop = tools_.options.stop;
    if (stop && stop()) stopped = std::min(stopped, now);
    return now - begin > kCancelTime || (now > stopped && now - stopped > kLastTime);
  };
  (void)AskUploadApi(tools_.api, options, {"upload/cancel", "upload/cancel", kUploadCancel},
                     {{"uploadId", upload_id_}}, [](const json&) { return true; });
}

}  // namespace varnel::service
