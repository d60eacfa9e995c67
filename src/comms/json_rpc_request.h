#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "comms/json_rpc_message.h"

namespace varnel::comms {

/// A request as it came: checked as a whole and its members found, but not built. Built it may take
/// thirty times its size, so its params are built where and when a handler needs them, and its id,
/// which only goes back, never is.
class JsonRpcRequest {
 public:
  /// Within the limits of ParsePayload(); never throws for what the payload holds. Failure
  /// kNotAnObject is what no answer could be addressed to.
  static std::variant<JsonRpcRequest, ParseFailure> Read(std::string payload);

  /// Absent when there is no member "method", or one that is no string.
  const std::optional<std::string>& Method() const { return method_; }
  /// False for a notification, which has no member "id".
  bool WantsAnswer() const { return id_.has_value(); }
  /// JSON text, as the sender wrote it; "null" without one. Lives as long as the request.
  std::string_view Id() const { return TextOf(id_); }
  /// Builds them anew; null when absent.
  Json Params() const { return Json::parse(TextOf(params_)); }

  const std::string& Payload() const { return payload_; }
  /// About what the whole request would take when built.
  size_t BuiltBytes() const { return built_bytes_; }

 private:
  friend class EnvelopeReader;

  struct Range {
    size_t begin;
    size_t end;
  };

  JsonRpcRequest() = default;
  std::string_view TextOf(const std::optional<Range>& range) const {
    if (!range) return "null";
    return std::string_view(payload_).substr(range->begin, range->end - range->begin);
  }

  std::string payload_;
  std::optional<std::string> method_;
  std::optional<Range> id_;
  std::optional<Range> params_;
  size_t built_bytes_ = 0;
};

}  // namespace varnel::comms
