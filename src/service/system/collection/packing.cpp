#include "service/system/collection/packing.h"

#include <fcntl.h>
#include <unistd.h>

#include <stdexcept>
#include <system_error>

#include "utils/free_space.h"
#include "utils/log.h"
#include "utils/log_text.h"
#include "utils/openssl_crypto.h"
#include "utils/owned.h"
#include "utils/random_password.h"
#include "utils/safe_exec.h"
#include "utils/write_all.h"

namespace varnel::service {
namespace {

namespace fs = std::filesystem;

constexpr const char* kTag = "COLLE";
constexpr const char* kPlainName = "sysinfo.tar.gz";
constexpr const char* kEncryptedName = "sysinfo_coll_enc.tar.gz";
constexpr const char* kContentName = "content.enc";
constexpr const char* kKeyName = "key.enc";
constexpr size_t kPasswordBytes = 32;
/// What the openssl program takes when it is told none.
constexpr uint32_t kIterations = 10'000;
constexpr uint32_t kKeyLimitMs = 60'000;
constexpr uint32_t kStillMs = 120'000;
constexpr uint64_t kProcessorMs = 3'600'000;
constexpr size_t kOutputLimit = 512;

[[noreturn]] void Fail(const std::string& why) {
  throw std::runtime_error(why);
}

/// Throws with what the program said.
void Require(utils::SafeExec& command, const char* what) {
  command.SetIdlePriority().SetOutputLimit(kOutputLimit);
  const auto run = command.TryExecute();
  if (!run) {
    VLOG_ERROR(kTag, "Execute fatal error: {}", run.Why());
    Fail(std::string(what) + ": " + run.Why());
  }
  if (run->success) return;
  VLOG_ERROR(kTag, "Execute error, code is {}", run->exit_code);
  Fail(std::string(what) + " failed with code " + std::to_string(run->exit_code) + ": " +
       utils::LogText(run->standard_error));
}

utils::SecretString MakePassword() {
  std::string password = utils::RandomPassword("hex", kPasswordBytes);
  if (password.size() != 2 * kPasswordBytes) {
    VLOG_ERROR(kTag, "Failed to generate password.");
    Fail("no random password");
  }
  utils::SecretString secret(password);
  utils::Wipe(password);
  return secret;
}

uint64_t BytesIn(const fs::path& path) {
  if (fs::is_regular_file(path)) return fs::file_size(path);
  uint64_t bytes = 0;
  for (const auto& entry : fs::recursive_directory_iterator(path))
    if (entry.is_regular_file()) bytes += entry.file_size();
  return bytes;
}

}  // namespace

/// A password where a program can read it, for as long as this object lives. Nobody else has a part
/// in the file.
class Packing::PasswordFile {
 public:
  PasswordFile(const fs::path& path, const utils::SecretString& password) : path_(path) {
    ::unlink(path_.c_str());
    const utils::UniqueFd file(
        ::open(path_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (file && !utils::WriteAll(file.Get(), password.Text())) return;
    if (file) ::unlink(path_.c_str());
    VLOG_ERROR(kTag, "write file '{}' failed.", path_.string());
    Fail("the password cannot be handed over");
  }
  ~PasswordFile() { ::unlink(path_.c_str()); }
  PasswordFile(const PasswordFile&) = delete;
  PasswordFile& operator=(const PasswordFile&) = delete;

 private:
  const fs::path path_;
};

void Packing::RequireRoomFor(const fs::path& source) const {
  if (utils::EnoughFreeSpace(setup_.directory, setup_.min_free_bytes + BytesIn(source))) return;
  VLOG_ERROR(kTag, "No room in {}", setup_.directory.string());
  Fail("no room");
}

void Packing::Tar(const std::string& options, const fs::path& archive, const fs::path& directory,
                  const std::vector<std::string>& members) const {
  utils::SafeExec command(setup_.tar);
  command.AddArg(options).AddArg(archive).AddArg("-C").AddArg(directory);
  for (const std::string& member : members) command.AddArg(member);
  command.SetStop(setup_.stopped);
  Require(command.SetWorkLimits(
              {.still_ms = kStillMs, .processor_ms = kProcessorMs, .progress = archive}),
          "packing");
}

fs::path Packing::Plain(const fs::path& content) const {
  VLOG_INFO(kTag, "Sysinfo collect: packaging and compression");
  RequireRoomFor(content);
  fs::path archive = setup_.directory / kPlainName;
  Tar("zhcvf", archive, content, {"."});
  fs::remove_all(content);
  return archive;
}

fs::path Packing::Encrypted(const fs::path& content) const {
  const fs::path plain = Plain(content);
  VLOG_INFO(kTag, "Sysinfo collect: encrypt");
  const utils::SecretString password = MakePassword();
  EncryptPassword(password);  // without a key there is no need for the rest
  EncryptArchive(plain, password);
  fs::remove(plain);
  VLOG_INFO(kTag, "Sysinfo collect: final packaging");
  RequireRoomFor(setup_.directory / kContentName);
  fs::path archive = setup_.directory / kEncryptedName;
  Tar("zcvf", archive, setup_.directory, {kContentName, kKeyName});
  fs::remove(setup_.directory / kContentName);
  fs::remove(setup_.directory / kKeyName);
  return archive;
}

void Packing::EncryptArchive(const fs::path& archive, const utils::SecretString& password) const {
  const fs::path target = setup_.directory / kContentName;
  if (fs::exists(fs::symlink_status(target))) {
    VLOG_ERROR(kTag, "The target file already exists.");
    Fail("the encrypted file exists already");
  }
  if (!fs::exists(archive)) {
    VLOG_ERROR(kTag, "The origin file does not exist.");
    Fail("the archive is gone");
  }
  RequireRoomFor(archive);
  utils::OpenSSLCrypto crypto("sysinfo_coll_enc", password.Text(), kIterations,
                              utils::SaltMode::kRandomPerFile, {});
  crypto.EncryptFile(archive, target);
}

void Packing::EncryptPassword(const utils::SecretString& password) const {
  std::error_code error;
  if (!fs::is_regular_file(setup_.public_key, error)) {
    VLOG_ERROR(kTag, "Open file '{}' failed.", setup_.public_key.string());
    Fail("there is no public key");
  }
  const PasswordFile file(setup_.password_file, password);
  utils::SafeExec command(setup_.openssl);
  command.AddArg("pkeyutl").AddArg("-encrypt").AddArg("-pubin").AddArg("-inkey");
  command.AddArg(setup_.public_key).AddArg("-in").AddArg(setup_.password_file);
  command.AddArg("-out").AddArg(setup_.directory / kKeyName);
  command.SetTimeout(kKeyLimitMs).SetStop(setup_.stopped);
  Require(command, "the encryption of the password");
}

}  // namespace varnel::service
