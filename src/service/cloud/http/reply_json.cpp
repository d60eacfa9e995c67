#include "service/cloud/http/reply_json.h"

namespace varnel::service {
namespace {

using nlohmann::json;

constexpr int kMaxDepth = 64;
constexpr int kMaxValues = 100'000;

/// Counts and builds nothing. False ends the reading.
class Counter : public nlohmann::json_sax<json> {
 public:
  bool null() override { return Count(); }
  bool boolean(bool) override { return Count(); }
  bool number_integer(number_integer_t) override { return Count(); }
  bool number_unsigned(number_unsigned_t) override { return Count(); }
  bool number_float(number_float_t, const string_t&) override { return Count(); }
  bool string(string_t&) override { return Count(); }
  bool binary(binary_t&) override { return Count(); }
  bool key(string_t&) override { return Count(); }
  bool start_object(size_t) override { return Count() && ++depth_ <= kMaxDepth; }
  bool start_array(size_t) override { return Count() && ++depth_ <= kMaxDepth; }
  bool end_object() override { return --depth_ >= 0; }
  bool end_array() override { return --depth_ >= 0; }
  bool parse_error(size_t, const std::string&, const nlohmann::detail::exception&) override {
    return false;
  }

 private:
  bool Count() { return ++values_ <= kMaxValues; }

  int depth_ = 0;
  int values_ = 0;
};

}  // namespace

std::optional<json> ParseReply(std::string_view text) {
  Counter counter;
  if (!json::sax_parse(text, &counter)) return std::nullopt;
  return json::parse(text);
}

}  // namespace varnel::service
