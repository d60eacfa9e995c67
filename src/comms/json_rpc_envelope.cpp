#include "comms/json_rpc_envelope.h"

#include <iterator>
#include <utility>

namespace varnel::comms {
namespace {

constexpr const char* kSpace = " \t\r\n";

// What the allocator hands out for the parts of a built value (64-bit libstdc++ and glibc).
constexpr size_t kContainerBytes = 64;
constexpr size_t kMemberBytes = 96;
constexpr size_t kStringBytes = 48;

/// Reads characters and tells outside how far it has come, which the parser keeps to itself.
class Cursor {
 public:
  using iterator_category = std::input_iterator_tag;
  using value_type = char;
  using difference_type = std::ptrdiff_t;
  using pointer = const char*;
  using reference = const char&;

  Cursor(const char* at, const char** shown) : at_(at), shown_(shown) {}
  reference operator*() const { return *at_; }
  Cursor& operator++() {
    *shown_ = ++at_;
    return *this;
  }
  bool operator==(const Cursor& other) const { return at_ == other.at_; }
  bool operator!=(const Cursor& other) const { return at_ != other.at_; }

 private:
  const char* at_;
  const char** shown_;
};

}  // namespace

/// Takes the parser's events for one envelope, whose payload is in place.
class EnvelopeReader final : public nlohmann::json_sax<Json> {
 public:
  explicit EnvelopeReader(JsonRpcEnvelope& envelope)
      : envelope_(envelope), shown_(envelope.payload_.data()) {}

  std::optional<ParseFailure> Read() {
    const std::string& text = envelope_.payload_;
    const Cursor begin(text.data(), &shown_);
    const Cursor end(text.data() + text.size(), &shown_);
    const bool whole = Json::sax_parse(begin, end, this);
    if (!whole || failure_) return std::move(failure_);
    if (!is_object_) return ParseFailure{ParseFailure::Kind::kNotAnObject, 0, {}};
    return std::nullopt;
  }

  bool null() override { return Scalar(0); }
  bool boolean(bool) override { return Scalar(0); }
  bool number_integer(Json::number_integer_t) override { return Number(); }
  bool number_unsigned(Json::number_unsigned_t) override { return Number(); }
  bool number_float(Json::number_float_t, const std::string&) override { return Number(); }
  bool string(std::string& value) override {
    const size_t bytes = kStringBytes + value.size();
    if (depth_ == 1 && member_ == Member::kMethod) envelope_.method_ = std::move(value);
    return Scalar(bytes);
  }
  bool binary(Json::binary_t&) override { return true; }  // not in text
  bool start_object(size_t) override {
    if (depth_ == 0) is_object_ = true;
    return Open();
  }
  bool end_object() override { return Close(); }
  bool start_array(size_t) override { return Open(); }
  bool end_array() override { return Close(); }

  bool key(std::string& name) override {
    envelope_.built_bytes_ += kMemberBytes + name.size();
    if (depth_ != 1) return true;
    name_end_ = Offset();
    member_ = MemberOf(name);
    // The last of equal names counts.
    if (member_ == Member::kMethod) envelope_.method_.reset();
    envelope_.has_result_ |= name == "result";
    envelope_.has_error_ |= name == "error";
    return true;
  }

  bool parse_error(size_t position, const std::string&,
                   const nlohmann::detail::exception& error) override {
    using Kind = ParseFailure::Kind;
    const bool syntax = dynamic_cast<const Json::parse_error*>(&error) != nullptr;
    failure_ = ParseFailure{syntax ? Kind::kSyntax : Kind::kOther, position, error.what()};
    return false;
  }

 private:
  enum class Member { kMethod, kId, kParams, kOther };

  static Member MemberOf(std::string_view name) {
    if (name == "method") return Member::kMethod;
    if (name == "id") return Member::kId;
    return name == "params" ? Member::kParams : Member::kOther;
  }

  size_t Offset() const { return static_cast<size_t>(shown_ - envelope_.payload_.data()); }

  bool Open() {
    envelope_.built_bytes_ += sizeof(Json) + kContainerBytes;
    if (++depth_ <= kMaxNesting) return true;
    failure_ = ParseFailure{ParseFailure::Kind::kTooDeep, 0, {}};
    return false;
  }

  bool Close() {
    --depth_;
    return EndValue(Offset());
  }

  bool Scalar(size_t bytes) {
    envelope_.built_bytes_ += sizeof(Json) + bytes;
    return EndValue(Offset());
  }

  /// Only by the character behind it does the parser see that a number has ended.
  bool Number() {
    envelope_.built_bytes_ += sizeof(Json);
    return EndValue(Offset() - 1);
  }

  bool EndValue(size_t end) {
    if (depth_ != 1 || (member_ != Member::kId && member_ != Member::kParams)) return true;
    const std::string& text = envelope_.payload_;
    const size_t begin = text.find_first_not_of(kSpace, text.find(':', name_end_) + 1);
    (member_ == Member::kId ? envelope_.id_ : envelope_.params_) = {begin, end};
    return true;
  }

  JsonRpcEnvelope& envelope_;
  const char* shown_;
  int depth_ = 0;
  bool is_object_ = false;
  Member member_ = Member::kOther;
  size_t name_end_ = 0;
  std::optional<ParseFailure> failure_;
};

std::variant<JsonRpcEnvelope, ParseFailure> JsonRpcEnvelope::Read(std::string payload) {
  if (payload.size() > kMaxPayloadBytes) return ParseFailure{ParseFailure::Kind::kTooLarge, 0, {}};
  JsonRpcEnvelope envelope;
  envelope.payload_ = std::move(payload);
  if (auto failure = EnvelopeReader(envelope).Read()) return *std::move(failure);
  return envelope;
}

}  // namespace varnel::comms
