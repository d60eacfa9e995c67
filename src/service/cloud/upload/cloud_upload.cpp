#include "service/cloud/upload/cloud_upload.h"

#include <exception>
#include <nlohmann/json.hpp>
#include <system_error>
#include <utility>

#include "utils/log.h"
#include "utils/log_text.h"

namespace varnel::service {
namespace {

using nlohmann::json;

constexpr const char* kTag = "CLDI";
/// From this size on files go in parts.
constexpr uint64_t kMultipartBytes = 1'048'576;

}  // namespace

CloudUpload::CloudUpload(UploadApi api, TransferStop stop, utils::Clock& clock)
    : api_(std::move(api)), stop_(std::move(stop)), clock_(clock) {}

std::optional<std::string> CloudUpload::Upload(const UploadRequest& request) {
  try {
    return UploadOrThrow(request);
  } catch (const std::exception& error) {
    VLOG_ERROR(kTag, "Upload {}: exception {}", utils::LogText(request.name),
               utils::LogText(error.what()));
    return std::nullopt;
  }
}

std::optional<std::string> CloudUpload::UploadOrThrow(const UploadRequest& request) {
  std::error_code error;
  const auto source = UploadSource::Open(request.file, error);
  if (!source) {
    VLOG_ERROR(kTag, "Cannot stat {}: {}", utils::LogText(request.file.string()), error.message());
    return std::nullopt;
  }
  const bool multipart = source->Size() >= kMultipartBytes;
  if (request.log) {
    VLOG_INFO(kTag, "Upload {} ({} bytes), multipart={}", utils::LogText(request.name),
              source->Size(), multipart);
  }
  const TransferStop stop = [&] { return (stop_ && stop_()) || (request.stop && request.stop()); };
  const RequestOptions options{stop, request.log};
  const auto held = api_.hold ? api_.hold() : nullptr;
  const UploadApi api = OneServer();
  Uploader uploader(stop, clock_);
  WholeProgress progress(request.progress, source->Size(), clock_);
  const UploadTools tools{api, uploader, *source, request.name, progress, options, clock_};
  auto url = multipart ? MultipartUpload(tools).Run() : UploadWhole(tools);
  if (url) progress.Finish();
  return url;
}

/// What one server began another one cannot end: the region may change meanwhile.
UploadApi CloudUpload::OneServer() const {
  UploadApi api = api_;
  const std::string server = api_.server ? api_.server() : std::string();
  api.post = [this, server](const std::string& path, const json& document,
                            const RequestOptions& options) {
    return api_.post(server + path, document, options);
  };
  return api;
}

std::optional<std::string> CloudUpload::UploadWhole(const UploadTools& tools) {
  const auto checksum = tools.source.Checksum(0, tools.source.Size(), tools.options.stop);
  if (!checksum) {
    VLOG_ERROR(kTag, "Failed to compute checksum for {}",
               utils::LogText(tools.source.Path().string()));
    return std::nullopt;
  }
  const auto data =
      AskUploadApi(tools.api, tools.options, {"upload/create", "upload/create", kUploadCreate},
                   {{"fileName", tools.name}, {"checkSum", *checksum}},
                   [](const json& given) { return !TextMember(given, "url").empty(); });
  if (!data) return std::nullopt;
  const PutResult put =
      tools.uploader.PutFile(TextMember(*data, "url"), tools.source, *checksum,
                             [&](uint64_t sent) { return tools.progress.Tell(sent); });
  if (!put.IsStored()) {
    VLOG_ERROR(kTag, "PUT file failed");
    return std::nullopt;
  }
  json completion{{"fileName", tools.name}};
  if (const std::string id = TextMember(*data, "uploadId"); !id.empty())
    completion["uploadId"] = id;
  return CompleteUpload(tools.api, tools.options, "upload/completed", completion);
}

}  // namespace varnel::service
