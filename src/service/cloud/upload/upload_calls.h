#pragma once

#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "service/cloud/http/http_client.h"

namespace varnel::service {

/// The cloud's API, as far as uploads need it. Functions of whoever owns the access; thread-safe.
struct UploadApi {
  std::function<bool()> has_access;
  /// The body of the answer; empty without one.
  std::function<std::string(const std::string& path, const nlohmann::json& document,
                            const RequestOptions& options)>
      post{};
  /// Whom an upload is told to from its begin to its end; paths are put behind it. May be empty.
  std::function<std::string()> server{};
  /// Held while an upload runs, for whoever must not end before; may be empty.
  std::function<std::shared_ptr<void>()> hold{};
};

/// One question to the API, and what is logged of its failure.
struct UploadCall {
  std::string name;         ///< begins the texts of the answers
  std::string failed_name;  ///< begins the text of no answer
  const char* path;
};

inline constexpr const char* kUploadCreate = "/api/device/upload/create";
inline constexpr const char* kUploadCompleted = "/api/device/upload/completed";
inline constexpr const char* kUploadCancel = "/api/device/upload/cancel";

/// "data" of the answer: an object, or null where the caller takes none.
/// @param fits whether it has what the caller needs
[[nodiscard]] std::optional<nlohmann::json> AskUploadApi(
    const UploadApi& api, const RequestOptions& options, const UploadCall& call,
    const nlohmann::json& document, const std::function<bool(const nlohmann::json& data)>& fits);

/// Tells the API that all has been sent: the address of the stored file, empty without one.
[[nodiscard]] std::optional<std::string> CompleteUpload(const UploadApi& api,
                                                        const RequestOptions& options,
                                                        const std::string& call_name,
                                                        const nlohmann::json& document);

/// A member that is a string; empty without one.
[[nodiscard]] std::string TextMember(const nlohmann::json& object, const char* name);

}  // namespace varnel::service
