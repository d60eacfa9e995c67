// Signatures, encryption and the files of the cloud link, judged by the openssl program.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <set>

#include "service/agent/auth/aes.h"
#include "service/agent/auth/signature.h"
#include "service/agent/authentication_world.h"
#include "support/full_disk.h"
#include "utils/base64.h"

namespace varnel::service {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

std::span<const unsigned char> BytesOf(std::string_view text) {
  return {reinterpret_cast<const unsigned char*>(text.data()), text.size()};
}

TEST(SignatureTest, OfBothKindsOfKeysIsTakenByOpensslAndNoOther) {
  const test::TempDir dir;
  for (const char* algorithm : {"EC", "RSA"}) {
    const Identity identity = MakeIdentity(dir, algorithm);
    (void)OpenSsl(dir, "pkey -in key.pem -pubout -out public.pem");
    const std::string der = OpenSsl(dir, "pkey -in key.pem -pubout -outform DER");
    const std::string text = SignedText("SN1", "unbind", MakeNonce());
    const std::string signature = Sign(text, identity.key_line);
    const auto raw = utils::DecodeBase64(signature).value();
    dir.Write("signature", std::string(raw.begin(), raw.end()));
    dir.Write("text", text);
    EXPECT_EQ(OpenSsl(dir, "dgst -sha256 -verify public.pem -signature signature text"),
              "Verified OK\n");
    EXPECT_TRUE(Verify(text, signature, BytesOf(der)));
    EXPECT_FALSE(Verify(text + "x", signature, BytesOf(der)));
    EXPECT_FALSE(Verify(text, signature.substr(4), BytesOf(der)));
  }
  EXPECT_EQ(SignedText("SN1", "", "123456"), "SN1&nonce=123456");
  EXPECT_EQ(SignedText("SN1", "unbind", "1"), "SN1&operate=unbind&nonce=1");
  for (const char* bad : {"", "AAAA", "not base64"}) {
    EXPECT_THROW((void)Sign("x", bad), std::runtime_error) << bad;
  }
  std::set<std::string> nonces;
  for (int i = 0; i < 200; ++i) {
    nonces.insert(MakeNonce());
    EXPECT_EQ(nonces.begin()->size(), 6U);
  }
  EXPECT_GT(nonces.size(), 150U);
}

TEST(AesTest, OpensslReadsWhatIsWrittenAndTheOtherWayRound) {
  const test::TempDir dir;
  const utils::SecretString key(std::string(32, 'K'));
  std::string options = "-aes-256-cbc -K ";
  for (int i = 0; i < 32; ++i) options += "4b";
  for (const size_t size : {1U, 15U, 16U, 17U, 5000U}) {
    const std::string plain(size, 'p');
    const auto ours = AesEncrypt(key, BytesOf(plain)).value();
    dir.Write("ours", std::string(ours.begin() + 16, ours.end()));
    std::string iv;
    for (size_t i = 0; i < 16; ++i) iv += fmt::format("{:02x}", ours[i]);
    EXPECT_EQ(OpenSsl(dir, fmt::format("enc -d -in ours {} -iv {}", options, iv)), plain);
    dir.Write("plain", plain);
    (void)OpenSsl(dir, fmt::format("enc -in plain -out theirs {} -iv {}", options, iv));
    const std::string theirs =
        std::string(ours.begin(), ours.begin() + 16) + test::ReadFile(dir / "theirs");
    EXPECT_EQ(AesDecrypt(key, BytesOf(theirs)).value().Text(), plain);
    EXPECT_FALSE(AesDecrypt(key, BytesOf(theirs.substr(0, theirs.size() - 1))));
  }
  const test::LogCapture log;
  EXPECT_FALSE(AesEncrypt(key, {}));
  EXPECT_FALSE(AesEncrypt(utils::SecretString("short"), BytesOf("x")));
  EXPECT_FALSE(AesDecrypt(key, BytesOf(std::string(31, 'x'))));
  EXPECT_TRUE(log.Has("MA_AUTH", "AesEncrypt: empty plaintext"));
  EXPECT_TRUE(log.Has("MA_AUTH", "AesEncrypt: EVP_EncryptInit_ex failed"));
  EXPECT_TRUE(log.Has("MA_AUTH", "AesDecrypt: EVP_DecryptFinal_ex failed"));
  std::string digits;
  for (int i = 0; i < 32; ++i) digits += "4B";
  for (const std::string& good : {std::string(32, 'K'), digits, digits + "\n"})
    EXPECT_EQ(LoadAesKey(dir.Write("key", good))->Text(), key.Text());
  for (const std::string& bad :
       {std::string(31, 'K'), digits + "00", "x" + digits.substr(1), digits.substr(32)})
    EXPECT_EQ(LoadAesKey(dir.Write("key", bad)), nullptr) << bad;
  EXPECT_EQ(LoadAesKey(dir / "none"), nullptr);
}

TEST(RegionTest, TheTableTheMarkersAndTheSiteDecideWhereRequestsGo) {
  const test::TempDir dir;
  CloudPlaces places{
      .regions = {{"int", {"api.example.com", ""}}, {"cn", {"api.example.cn", ""}}, {"eu", {}}},
      .local_server = "10.0.0.1:80",
      .preview_marker = dir / "preview",
      .local_marker = dir / "local"};
  EXPECT_EQ(BaseUrl(places, "int"), "https://api.example.com");
  EXPECT_EQ(BaseUrl(places, "eu"), std::nullopt);
  EXPECT_FALSE(IsRegion(places, "eu"));
  EXPECT_EQ(BaseUrl(places, "mars"), std::nullopt);
  dir.Write("preview", "");
  EXPECT_EQ(BaseUrl(places, "cn"), "https://pre.api.example.cn");
  const std::pair<const char*, const char*> sites[] = {{"https://api.example.com", "prod-com"},
                                                       {"https://pre.api.example.cn", "pre-cn"},
                                                       {"http://10.0.0.1:80", "prod-other"}};
  for (const auto& [url, site] : sites) EXPECT_EQ(SiteOf(url), site);
  dir.Write("local", "");
  EXPECT_EQ(BaseUrl(places, "eu"), "http://10.0.0.1:80");
  places.local_server = "";
  EXPECT_EQ(BaseUrl(places, "int"), std::nullopt);
  EXPECT_FALSE(IsRegion(places, "int")) << "the server beside the board has no address";
}

class CredentialStoreTest : public testing::Test, public AuthenticationWorld {
 protected:
  static BrokerAccess Access(const Identity& identity) {
    return {"broker.example",     8883,
            "client-1",           identity.certificate,
            identity.certificate, utils::SecretString(identity.key)};
  }
  void SaveAll(const Identity& identity) const {
    const auto info = store_.Save(Access(identity));
    ASSERT_TRUE(info);
    store_.SaveAuthInfoToCache(*info, kSource);
  }
  const CredentialSource kSource{"cn", "https://api"};
  const fs::path directory_ = dir_ / "data/certs";
  const CredentialStore store_{directory_, clock_};
};

TEST_F(CredentialStoreTest, FilesAreTheOwnersAndCountOnlyTogether) {
  const mode_t before = ::umask(0);
  SaveAll(identity_);
  ::umask(before);
  EXPECT_EQ(fs::status(directory_).permissions(), fs::perms::owner_all);
  for (const char* name : {"client.cert", "client.key", "root_ca.pem", "auth_info.json"}) {
    const fs::path file = directory_ / name;
    EXPECT_EQ(fs::status(file).permissions(), fs::perms::owner_read | fs::perms::owner_write);
    const std::string content = test::ReadFile(file);
    for (const std::string& broken : {std::string(), content.substr(0, content.size() / 2)}) {
      dir_.Write("data/certs/" + std::string(name), broken);
      EXPECT_FALSE(store_.LoadAuthInfoFromCache(kSource)) << name;
    }
    dir_.Write("data/certs/" + std::string(name), content);
  }
  EXPECT_FALSE(store_.LoadAuthInfoFromCache({"cn", "https://pre.api"})) << "another broker";
  EXPECT_FALSE(store_.LoadAuthInfoFromCache({"int", "https://api"}));
  EXPECT_TRUE(log_.Has(
      "MA_AUTH", "Cached auth info region mismatch (cached=cn, current=int), ignoring cache"));
  const json info = store_.LoadAuthInfoFromCache(kSource).value();
  EXPECT_EQ(info["client_key"], (directory_ / "client.key").string());
  EXPECT_EQ(info["port"], "8883");
  // A new pair that is cut short leaves none that seems whole.
  const Identity other = MakeIdentity(dir_, "EC");
  BrokerAccess long_chain = Access(other);
  for (int i = 0; i < 8; ++i) long_chain.root_ca += other.certificate;
  {
    const test::FullDisk full(4096);
    EXPECT_FALSE(store_.Save(long_chain));
  }
  EXPECT_TRUE(fs::is_empty(directory_)) << "neither half of the new nor the old";
  SaveAll(other);
  store_.Remove();
  EXPECT_TRUE(fs::is_empty(directory_));
  store_.Remove();
  EXPECT_TRUE(log_.Has("MA_AUTH", "No client certificates found to remove"));
}

TEST_F(CredentialStoreTest, ACertificateIsOverWhenNoSecondIsLeft) {
  EXPECT_TRUE(store_.CheckCertExpired());
  SaveAll(identity_);
  const auto end = [&] {
    const std::string date =
        OpenSsl(dir_, "x509 -in certificate.pem -noout -enddate -dateopt iso_8601");
    std::tm time{};
    ::strptime(date.c_str() + std::string("notAfter=").size(), "%Y-%m-%d %H:%M:%SZ", &time);
    return std::chrono::system_clock::from_time_t(::timegm(&time));
  }();
  const std::pair<std::chrono::seconds, bool> cases[] = {{std::chrono::hours(30), false},
                                                         {std::chrono::seconds(1), false},
                                                         {std::chrono::seconds(0), true},
                                                         {std::chrono::seconds(-1), true},
                                                         {std::chrono::hours(-48), true}};
  for (const auto& [left, over] : cases) {
    clock_.SetWallTime(end - left);
    EXPECT_EQ(store_.CheckCertExpired(), over) << left.count();
  }
  EXPECT_TRUE(log_.Has("MA_AUTH", "Client certificate valid for 0d 1s"));
  EXPECT_TRUE(log_.Has("MA_AUTH", "Client certificate has expired (0d 0s remaining)"));
  clock_.SetWallTime({});
  EXPECT_FALSE(store_.CheckCertExpired()) << "a clock that was never set judges nothing";
  dir_.Write("data/certs/client.cert", "no certificate");
  EXPECT_TRUE(store_.CheckCertExpired());
}

}  // namespace
}  // namespace varnel::service
