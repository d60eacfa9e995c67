#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "comms/json_rpc_message.h"

namespace varnel::comms {

/// What a payload from outside may be at most.
constexpr size_t kMaxPayloadBytes = size_t{1} << 20;
constexpr int kMaxNesting = 64;

/// Why a payload is not served.
struct ParseFailure {
  enum class Kind { kTooLarge, kTooDeep, kNotAnObject, kSyntax, kOther } kind;
  size_t byte = 0;   ///< position of a syntax error
  std::string text;  ///< the parser's own message
};

/// A request or response as it came: checked as a whole and its members found, but not built. Built
/// it may take thirty times its size, so a part is built where and when somebody needs it, and the
/// id of a request, which only goes back, never is.
class JsonRpcEnvelope {
 public:
  /// Within the limits above; never throws for what the payload holds. Failure
  /// kNotAnObject is what no answer could be addressed to.
  static std::variant<JsonRpcEnvelope, ParseFailure> Read(std::string payload);

  /// Absent when there is no member "method", or one that is no string.
  const std::optional<std::string>& Method() const { return method_; }
  /// Has a member "id". A request without one is a notification, which wants no answer.
  bool HasId() const { return id_.has_value(); }
  /// Has a member "error".
  bool IsError() const { return has_error_; }
  /// Has a member "result" or "error".
  bool IsResponse() const { return has_result_ || has_error_; }
  /// JSON text, as the sender wrote it; "null" without one. Lives as long as the envelope.
  std::string_view Id() const { return TextOf(id_); }
  /// Builds them anew; null when absent.
  Json Params() const { return Json::parse(TextOf(params_)); }

  const std::string& Payload() const { return payload_; }
  /// About what the whole of it would take when built.
  size_t BuiltBytes() const { return built_bytes_; }

 private:
  friend class EnvelopeReader;

  struct Range {
    size_t begin;
    size_t end;
  };

  JsonRpcEnvelope() = default;
  std::string_view TextOf(const std::optional<Range>& range) const {
    if (!range) return "null";
    return std::string_view(payload_).substr(range->begin, range->end - range->begin);
  }

  std::string payload_;
  std::optional<std::string> method_;
  std::optional<Range> id_;
  std::optional<Range> params_;
  bool has_result_ = false;
  bool has_error_ = false;
  size_t built_bytes_ = 0;
};

}  // namespace varnel::comms
