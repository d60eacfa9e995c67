// The installed openssl program judges every file that is made here.
#define OPENSSL_SUPPRESS_DEPRECATED  // the only way to let the library's random bytes fail
#include "utils/openssl_crypto.h"

#include <gmock/gmock.h>
#include <openssl/evp.h>
#include <openssl/rand.h>
#include <sys/stat.h>

#include <algorithm>
#include <random>
#include <thread>

#include "support/full_disk.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"
#include "utils/random_password.h"
#include "utils/safe_exec.h"

namespace varnel::utils {
namespace {

namespace fs = std::filesystem;
using test::LogCapture;
using test::ReadFile;
using test::TempDir;
using Salt = std::vector<uint8_t>;
using Words = std::vector<std::string>;

const Salt kSalt = {'s', 0, 0xff, '\n', 1, 2, 3, 4};
const std::string kPassword = "p\xc3\xa4ss $word 'quoted' ";

/// The same bytes for the same size, and no two blocks alike.
std::string Content(size_t size) {
  std::mt19937 random(static_cast<uint32_t>(size));
  std::string text(size, '\0');
  std::generate(text.begin(), text.end(), [&] { return static_cast<char>(random()); });
  return text;
}

template <class Bytes>
std::string Hex(const Bytes& bytes) {
  std::string text;
  for (const auto byte : bytes) text += fmt::format("{:02x}", static_cast<uint8_t>(byte));
  return text;
}

std::string RunProgram(const std::string& program, const Words& words) {
  SafeExec command(program);
  for (const std::string& word : words) command.AddArg(word);
  const SafeExec::Result result = command.Execute();
  EXPECT_TRUE(result.success) << command.ToString() << ": " << result.standard_error;
  return result.standard_output;
}

/// The exception's text; empty when there was none.
template <class Body>
std::string Failure(const Body& body) {
  try {
    body();
    return "";
  } catch (const std::runtime_error& error) {
    return error.what();
  }
}

class OpenSSLCryptoTest : public ::testing::Test {
 protected:
  ~OpenSSLCryptoTest() override { EXPECT_EQ(log_.Text().find("$word"), std::string::npos); }

  OpenSSLCrypto Make(SaltMode mode, Salt salt = kSalt, const std::string& password = kPassword) {
    return {"test_cap_enc_fix", password, 37, mode, std::move(salt)};
  }

  /// The file that openssl makes with this salt.
  std::string Theirs(const fs::path& plain, const Salt& salt,
                     const std::string& password = kPassword) {
    std::string key =
        RunProgram("/usr/bin/openssl", {"kdf", "-keylen", "48", "-kdfopt", "digest:SHA256",
                                        "-kdfopt", "iter:37", "-kdfopt", "hexpass:" + Hex(password),
                                        "-kdfopt", "hexsalt:" + Hex(salt), "PBKDF2"});
    std::erase_if(key, [](char c) { return c == ':' || c == '\n'; });
    RunProgram("/usr/bin/openssl", {"enc", "-aes-256-cbc", "-in", plain, "-out", dir_ / "theirs",
                                    "-e", "-K", key.substr(0, 64), "-iv", key.substr(64)});
    return "Salted__" + std::string(salt.begin(), salt.end()) + ReadFile(dir_ / "theirs");
  }

  const TempDir dir_;
  const LogCapture log_;
};

TEST_F(OpenSSLCryptoTest, IsWhatOpensslMakesForEverySizeSaltModeAndPassword) {
  for (const SaltMode mode : {SaltMode::kFixed, SaltMode::kRandomOnce, SaltMode::kRandomPerFile}) {
    OpenSSLCrypto crypto = Make(mode);
    for (const size_t size : {0, 1, 15, 16, 17, 65535, 65536, 65537, 10'000'000}) {
      const fs::path plain = dir_.Write("plain", Content(size));
      crypto.EncryptFile(plain, dir_ / "ours");
      EXPECT_TRUE(ReadFile(dir_ / "ours") == Theirs(plain, crypto.Salt()))
          << "mode " << static_cast<int>(mode) << ", " << size << " bytes";
    }
  }
  const fs::path plain = dir_.Write("plain", Content(1000));
  for (const std::string& password : {std::string(), std::string("a\0b\nc\n", 6), Content(3000)}) {
    for (const size_t salt_size : {0, 1, 7, 9, 100}) {
      const std::string random = Content(salt_size);
      const Salt salt(random.begin(), random.end());
      Make(SaltMode::kFixed, salt, password).EncryptFile(plain, dir_ / "ours");
      EXPECT_EQ(ReadFile(dir_ / "ours"), Theirs(plain, salt, password));
    }
  }
}

TEST_F(OpenSSLCryptoTest, SaltModesDecideWhenASaltIsMade) {
  const fs::path plain = dir_.Write("plain", "text");
  const Salt given(12, 'x');
  for (const SaltMode mode : {SaltMode::kFixed, SaltMode::kRandomOnce, SaltMode::kRandomPerFile}) {
    OpenSSLCrypto crypto = Make(mode, given);
    EXPECT_EQ(crypto.Salt(), given);
    crypto.EncryptFile(plain, dir_ / "ours");
    const Salt first = crypto.Salt();
    crypto.EncryptFile(plain, dir_ / "ours");
    EXPECT_EQ(first == given, mode == SaltMode::kFixed);
    EXPECT_EQ(first.size(), mode == SaltMode::kFixed ? 12U : 8U);
    EXPECT_EQ(first == crypto.Salt(), mode != SaltMode::kRandomPerFile);
  }
}

TEST_F(OpenSSLCryptoTest, ThreadsShareOneObject) {
  const fs::path plain = dir_.Write("plain", Content(300'000));
  OpenSSLCrypto crypto = Make(SaltMode::kRandomPerFile);
  std::vector<std::thread> threads;
  for (const char* name : {"a", "b", "c"}) {
    threads.emplace_back([&, name] { crypto.EncryptFile(plain, dir_ / name); });
  }
  EXPECT_EQ(crypto.Salt().size(), 8U);
  for (std::thread& thread : threads) thread.join();
  for (const char* name : {"a", "b", "c"}) {
    const std::string file = ReadFile(dir_ / name);
    EXPECT_TRUE(file == Theirs(plain, Salt(file.begin() + 8, file.begin() + 16))) << name;
  }
}

TEST_F(OpenSSLCryptoTest, UnreadableInputLeavesTheOutputAlone) {
  const fs::path output = dir_.Write("ours", "older");
  ASSERT_EQ(::mkfifo((dir_ / "fifo").c_str(), 0600), 0);
  OpenSSLCrypto crypto = Make(SaltMode::kFixed);
  for (const fs::path& input : {dir_ / "missing", dir_ / "fifo", dir_.Path()}) {
    EXPECT_EQ(Failure([&] { crypto.EncryptFile(input, output); }),
              "Open file " + input.string() + " failed");
  }
  EXPECT_EQ(ReadFile(output), "older");
  // A regular file whose reading fails.
  EXPECT_EQ(Failure([&] { crypto.EncryptFile("/proc/self/mem", output); }),
            "Encryption update failed");
  EXPECT_TRUE(log_.Has("CRYPTO", "Encryption update failed: Input/output error"));
}

TEST_F(OpenSSLCryptoTest, OutputIsANewFileOrRefused) {
  const fs::path plain = dir_.Write("plain", "text");
  const fs::path victim = dir_.Write("victim", "precious");
  fs::create_symlink(victim, dir_ / "ours");
  ASSERT_EQ(::mkfifo((dir_ / "fifo").c_str(), 0600), 0);
  OpenSSLCrypto crypto = Make(SaltMode::kFixed);
  crypto.EncryptFile(plain, dir_ / "ours");
  EXPECT_EQ(ReadFile(victim), "precious");
  EXPECT_EQ(ReadFile(dir_ / "ours"), Theirs(plain, kSalt));
  EXPECT_EQ(fs::status(dir_ / "ours").permissions(), fs::perms(0600));
  for (const fs::path& output : {dir_ / "no/ours", dir_.Path(), dir_ / "fifo", plain}) {
    EXPECT_EQ(Failure([&] { crypto.EncryptFile(plain, output); }),
              "Create file " + output.string() + " failed");
  }
  EXPECT_EQ(ReadFile(plain), "text");
}

TEST_F(OpenSSLCryptoTest, FullDiskFailsWhereverItFillsUpAndTheRestStaysForTheCaller) {
  const fs::path plain = dir_.Write("plain", Content(1'000'000));
  const fs::path output = dir_ / "ours";
  OpenSSLCrypto crypto = Make(SaltMode::kFixed);
  const std::string created = "Create file " + output.string() + " failed";
  for (const auto& [bytes, failure] : {std::pair(8, created),
                                       {100, "Encryption update failed"},
                                       {1'000'015, "Encryption update failed"},
                                       {1'000'016, "Encryption finalization failed"},
                                       {1'000'032, ""}}) {
    const test::FullDisk disk(bytes);
    EXPECT_EQ(Failure([&] { crypto.EncryptFile(plain, output); }), failure);
    EXPECT_EQ(fs::file_size(output), bytes);
  }
  EXPECT_TRUE(log_.Has("CRYPTO", "Encryption update failed: File too large"));
}

/// The crypto library without any algorithm, for as long as it lives.
struct NoAlgorithms {
  NoAlgorithms() { EVP_set_default_properties(nullptr, "provider=none"); }
  ~NoAlgorithms() { EVP_set_default_properties(nullptr, ""); }
};

TEST_F(OpenSSLCryptoTest, FailuresOfTheLibraryAndTheKeyIsDerivedOnlyWhenNeeded) {
  constexpr const char* kNotDerived = "derive the KAY and IV using PBKDF2 falied";
  const fs::path plain = dir_.Write("plain", "text");
  for (const uint32_t iterations : {0U, 0x80000000U, 0xffffffffU}) {
    OpenSSLCrypto crypto("count", kPassword, iterations, SaltMode::kFixed, kSalt);
    EXPECT_EQ(Failure([&] { crypto.EncryptFile(plain, dir_ / "ours"); }), kNotDerived);
    EXPECT_FALSE(fs::exists(dir_ / "ours"));
  }
  const std::pair<SaltMode, std::string> second_file[] = {
      {SaltMode::kFixed, "Initialize encryption operation failed"},
      {SaltMode::kRandomOnce, "Initialize encryption operation failed"},
      {SaltMode::kRandomPerFile, kNotDerived}};
  for (const auto& [mode, failure] : second_file) {
    OpenSSLCrypto crypto = Make(mode);
    const auto encrypt = [&] { crypto.EncryptFile(plain, dir_ / "ours"); };
    EXPECT_EQ(Failure(encrypt), "");
    {
      const NoAlgorithms none;
      EXPECT_EQ(Failure(encrypt), failure);
    }
    EXPECT_EQ(Failure(encrypt), "");
  }
}

/// A random generator that has nothing to give, for as long as it lives.
class NoRandomBytes {
 public:
  NoRandomBytes() { RAND_set_rand_method(&kMethod); }
  ~NoRandomBytes() { RAND_set_rand_method(RAND_OpenSSL()); }

 private:
  static int Refuse(unsigned char* /*bytes*/, int /*count*/) { return 0; }
  static constexpr RAND_METHOD kMethod = {nullptr, &Refuse, nullptr, nullptr, nullptr, nullptr};
};

TEST_F(OpenSSLCryptoTest, WithoutRandomBytesNoFileIsMadeUntilThereAreSome) {
  const fs::path plain = dir_.Write("plain", "text");
  OpenSSLCrypto crypto = Make(SaltMode::kRandomOnce);
  const auto encrypt = [&] { crypto.EncryptFile(plain, dir_ / "ours"); };
  {
    const NoRandomBytes none;
    EXPECT_EQ(Failure(encrypt), "generate random salt failed");
  }
  EXPECT_FALSE(fs::exists(dir_ / "ours"));
  EXPECT_EQ(Failure(encrypt), "");
  EXPECT_NE(crypto.Salt(), kSalt);
}

TEST_F(OpenSSLCryptoTest, RandomPasswordIsHexOrNothingOrTheFallback) {
  EXPECT_NE(RandomPassword("hex", 16), RandomPassword("hex", 16));
  EXPECT_THAT(RandomPassword("hex", 4096), ::testing::MatchesRegex("[0-9a-f]{8192}"));
  for (const char* encoding : {"base64", "HEX", ""}) EXPECT_EQ(RandomPassword(encoding, 16), "");
  EXPECT_EQ(RandomPassword("hex", 0), "");
  const NoRandomBytes none;
  EXPECT_EQ(RandomPassword("hex", 16), "zed_key");
}

}  // namespace
}  // namespace varnel::utils
