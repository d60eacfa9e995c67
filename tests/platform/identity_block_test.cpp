#include "platform/identity_block.h"

#include <gmock/gmock.h>
#include <sys/stat.h>

#include <string>

#include "support/temp_dir.h"
#include "virtual_board/identity/block.h"

namespace varnel::platform {
namespace {

using namespace std::string_literals;
using board::ClearIdentityBlock;
using board::SealedIdentityBlock;

const std::string kKey = "0123456789abcdef\0\xFF\n3456789abcdef"s;
constexpr const char* kIdentity = R"({"SerialNumber":"SN01","ProductCode":"PC9"})";

std::string Changed(std::string block, size_t at, char to) {
  block.at(at) = to;
  return block;
}

class IdentityBlockTest : public testing::Test {
 protected:
  IdentityBlockTest() { storage_ = {dir_ / "mmcblk0", 100, dir_ / "key"}; }

  /// The status, or the value after a success.
  std::string Read(const char* key = "SerialNumber") {
    char out[64] = "untouched";
    const auto status = read_identity_value(&storage_, key, out, sizeof out);
    const bool read = status == IdentityStatus::kSuccess;
    EXPECT_TRUE(read || out == "untouched"s);
    return read ? out : std::to_string(static_cast<int>(status));
  }
  std::string ReadBlock(const std::string& block) {
    dir_.Write("mmcblk0", std::string(100, '#') + block + "behind");
    return Read();
  }
  std::string ReadJson(const std::string& json) { return ReadBlock(ClearIdentityBlock(json)); }
  std::string ReadWithKey(const std::string& key_file) {
    dir_.Write("key", key_file);
    return Read();
  }

  test::TempDir dir_;
  IdentityStorage storage_;
};

TEST_F(IdentityBlockTest, EachFaultHasItsStatus) {
  const std::string good = ClearIdentityBlock(kIdentity);
  EXPECT_EQ(Read(), "-2") << "no storage";
  EXPECT_EQ(ReadBlock(good), "SN01");
  EXPECT_EQ(ReadBlock(std::string(1024, '\0')), "-4");
  for (const size_t at : {0, 1, 2, 3}) EXPECT_EQ(ReadBlock(Changed(good, at, '\0')), "-4");
  EXPECT_EQ(ReadBlock(Changed(good, 4, 2)), "-8");
  EXPECT_EQ(ReadBlock(Changed(good, 4, '\xFF')), "-8");

  dir_.Write("mmcblk0", std::string(100, '#') + good.substr(0, 1023));
  EXPECT_EQ(Read(), "-2") << "cut short";
  storage_.offset = UINT64_MAX - 3;
  EXPECT_EQ(Read(), "-2");
  storage_ = {dir_.Path(), 0, ""};
  EXPECT_EQ(Read(), "-2") << "a directory";
  ASSERT_EQ(::mkfifo((dir_ / "fifo").c_str(), 0600), 0);
  storage_.device = dir_ / "fifo";
  EXPECT_EQ(Read(), "-2") << "and it does not wait for a writer";

  char out[8];
  EXPECT_EQ(read_identity_value(nullptr, "k", out, 8), IdentityStatus::kNullArgument);
  EXPECT_EQ(read_identity_value(&storage_, nullptr, out, 8), IdentityStatus::kNullArgument);
  EXPECT_EQ(read_identity_value(&storage_, "k", nullptr, 8), IdentityStatus::kNullArgument);
  EXPECT_EQ(read_identity_value(&storage_, "k", out, 0), IdentityStatus::kNullArgument);
}

TEST_F(IdentityBlockTest, ReadsTheStringsOfTheJsonObject) {
  const std::string longest(63, 's');
  const std::string full = R"({"SerialNumber":"SN01","p":")";
  const std::pair<std::string, std::string> readable[] = {
      {R"( {"o" : {"SerialNumber":"inner"}, "SerialNumber" : "S" , "n":[-1.5e3,null,"x"]} )", "S"},
      {R"({"SerialNumber":"first","SerialNumber":"last"})", "last"},
      {R"({"Serial\u004Eumber":"S"})", "S"},
      {R"({"SerialNumber":"\"\\\/A\u00e9\u20AC\uD83D\ude00é"})", "\"\\/Aé€😀é"},
      {R"({"SerialNumber":""})", ""},
      {R"({"SerialNumber":"S\n"})", "S\n"},
      {R"({"SerialNumber":")" + longest + "\"}", longest},
      {"{\"SerialNumber\":\"S\"}\xFF\xFF{", "S"},
      {std::string("{\"SerialNumber\":\"S\"}\0{", 22), "S"},
      {full + std::string(1019 - full.size() - 2, 'x') + "\"}", "SN01"},
  };
  for (const auto& [json, outcome] : readable) EXPECT_EQ(ReadJson(json), outcome) << json;
  const std::string no_text[] = {
      R"({})",
      R"({"SerialNumber":")" + longest + "s\"}",
      R"({"serialnumber":"S","x":"SerialNumber"})",
      R"({"SerialNumber":5})",
      R"({"SerialNumber":null})",
      R"({"SerialNumber":["S"]})",
      R"({"SerialNumber":"S","SerialNumber":1})",
      R"({"SerialNumber":"S\u0000"})",
      "{\"SerialNumber\":" + std::string(490, '[') + std::string(490, ']') + "}"};
  for (const std::string& json : no_text) EXPECT_EQ(ReadJson(json), "-7") << json;
  for (const std::string& inside :
       {"S\""s, "S"s, R"(S\)"s, R"(S"} x)"s, R"(S",})"s, R"(S","x":"\x"})"s, R"(\u12g4"})"s,
        R"(\u-123"})"s, R"(\uD83D"})"s, R"(\uD83D\u0041"})"s, R"(\uDE00"})"s, "a\tb\"}"s,
        "\xC3(\"}"s, "\xED\xA0\x80\"}"s}) {
    EXPECT_EQ(ReadJson(R"({"SerialNumber":")" + inside), "-5") << inside;
  }
  for (const std::string& json :
       {""s, R"(["SerialNumber"])"s, R"("SerialNumber")"s, std::string(1019, '[')}) {
    EXPECT_EQ(ReadJson(json), "-5") << json;
  }
}

TEST_F(IdentityBlockTest, AnEncryptedBlockOpensWithItsKeyAlone) {
  const std::string block = SealedIdentityBlock(kIdentity, kKey);
  EXPECT_EQ(block.find("SN01"), block.npos);
  EXPECT_EQ(ReadBlock(block), "-3") << "no key file";
  const std::string hex =
      "303132333435363738396162636465660"
      "0FF0A33343536373839616263646566";
  for (const std::string& key : {kKey, hex, hex + "\n"}) EXPECT_EQ(ReadWithKey(key), "SN01");
  for (const std::string& key : {""s, kKey.substr(1), kKey + "\n", hex + "\n\n", hex + "00",
                                 "x" + hex.substr(1), std::string(1 << 20, '0')}) {
    EXPECT_EQ(ReadWithKey(key), "-3") << key.substr(0, 80);
  }
  EXPECT_EQ(ReadWithKey("1" + kKey.substr(1)), "-6") << "another key";
  dir_.Write("key", kKey);
  for (const size_t at : {5, 16, 17, 500, 1007, 1008, 1023}) {
    EXPECT_EQ(ReadBlock(Changed(block, at, static_cast<char>(block[at] ^ 1))), "-6") << at;
  }
  EXPECT_EQ(ReadBlock(Changed(block, 4, 0)), "-5") << "ciphertext is not taken for JSON";
  EXPECT_EQ(ReadBlock(SealedIdentityBlock("no JSON", kKey)), "-5");
  EXPECT_EQ(ReadBlock(SealedIdentityBlock("{}", kKey)), "-7");
  storage_.key_file = dir_.Path();
  EXPECT_EQ(ReadBlock(block), "-3") << "a directory";
  storage_.key_file = "";
  EXPECT_EQ(Read(), "-3");
}

}  // namespace
}  // namespace varnel::platform
