#include "service/system/upgrade/firmware_check.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <vector>

#include "utils/base64.h"
#include "utils/last_error.h"
#include "utils/log.h"
#include "utils/log_text.h"
#include "utils/owned.h"

namespace varnel::service {
namespace {

constexpr const char* kTag = "UPGM";
constexpr const char* kWrongSignature = "the signature is wrong";
constexpr size_t kBlockBytes = size_t{1} << 20U;

using VerifyContext = utils::Owned<EVP_MD_CTX, EVP_MD_CTX_free>;
using Key = utils::Owned<EVP_PKEY, EVP_PKEY_free>;

Key ReadKey(const std::filesystem::path& file) {
  const utils::Owned<std::FILE, std::fclose> opened(std::fopen(file.c_str(), "re"));
  Key key(opened ? PEM_read_PUBKEY(opened.get(), nullptr, nullptr, nullptr) : nullptr);
  return key && EVP_PKEY_get_id(key.get()) == EVP_PKEY_ED25519 ? std::move(key) : nullptr;
}

bool IsSameFile(const struct stat& a, const struct stat& b) {
  const auto same = [](const timespec& x, const timespec& y) {
    return x.tv_sec == y.tv_sec && x.tv_nsec == y.tv_nsec;
  };
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino && a.st_size == b.st_size &&
         same(a.st_mtim, b.st_mtim) && same(a.st_ctim, b.st_ctim);
}

}  // namespace

FirmwareCheck::FirmwareCheck(std::filesystem::path key_file, std::function<bool()> stop)
    : key_file_(std::move(key_file)), stop_(std::move(stop)) {}

bool FirmwareCheck::CheckFirmwareFile(const std::filesystem::path& file,
                                      const FirmwareDescription& description, Reading reading) {
  const auto opened = Open(file, description);
  if (!opened) return false;
  if (reading == Reading::kOnceAFile && IsKnown(opened->info, description)) return true;
  const auto digests = Read(opened->fd.Get());
  const bool good = digests && Judge(*opened, description, *digests);
  if (!good) Forget(opened->info);
  return good;
}

bool FirmwareCheck::CheckWrittenFile(const std::filesystem::path& file,
                                     const FirmwareDescription& description,
                                     const FirmwareDigests& digests) {
  const auto opened = Open(file, description);
  return opened && Judge(*opened, description, digests);
}

std::optional<FirmwareCheck::Opened> FirmwareCheck::Open(const std::filesystem::path& file,
                                                         const FirmwareDescription& description) {
  const std::string name = utils::LogText(file.string());
  struct stat info {};
  if (::lstat(file.c_str(), &info) != 0) {
    VLOG_WARN(kTag, "File {} not found, reason is {}", name, utils::LastError().message());
    return std::nullopt;
  }
  utils::UniqueFd fd(::open(file.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!fd || ::fstat(fd.Get(), &info) != 0 || !S_ISREG(info.st_mode)) {
    VLOG_ERROR(kTag, "CheckFirmwareFile: cannot open file {}", name);
    return std::nullopt;
  }
  if (static_cast<uint64_t>(info.st_size) != description.size) {
    VLOG_ERROR(kTag, "The file sizes are not equal, expect: {}, actual: {}", description.size,
               info.st_size);
    return std::nullopt;
  }
  return Opened{std::move(fd), info};
}

bool FirmwareCheck::Judge(const Opened& opened, const FirmwareDescription& description,
                          const FirmwareDigests& digests) {
  if (digests.md5 != description.md5) {
    VLOG_ERROR(kTag, "The file MD5 are not equal, expect: {}, actual: {}", description.md5,
               digests.md5);
    return false;
  }
  if (WantsSha256() && !IsSigned(digests.sha256, description.signature)) return false;
  struct stat after {};
  if (::fstat(opened.fd.Get(), &after) != 0 || !IsSameFile(opened.info, after)) return false;
  const utils::MutexLock lock(mutex_);
  known_ = Known{opened.info, description};
  return true;
}

/// What failed once is not good because of an earlier reading.
void FirmwareCheck::Forget(const struct stat& info) {
  const utils::MutexLock lock(mutex_);
  if (known_ && IsSameFile(known_->info, info)) known_.reset();
}

bool FirmwareCheck::MayPass(const FirmwareDescription& description) const {
  if (!WantsSha256() || !description.signature.empty()) return true;
  VLOG_ERROR(kTag, "CheckFirmwareFile: {}", kWrongSignature);
  return false;
}

/// A new name is a change of the inode, and nobody but us may enter the directory.
void FirmwareCheck::Follow(const std::filesystem::path& file) {
  struct stat info {};
  if (::lstat(file.c_str(), &info) != 0) return;
  const utils::MutexLock lock(mutex_);
  if (!known_) return;
  known_->info.st_ctim = info.st_ctim;
  if (!IsSameFile(known_->info, info)) known_.reset();
}

bool FirmwareCheck::IsKnown(const struct stat& info, const FirmwareDescription& description) const {
  const utils::MutexLock lock(mutex_);
  return known_ && IsSameFile(known_->info, info) &&
         known_->description.IsSameFirmware(description);
}

std::optional<FirmwareDigests> FirmwareCheck::Read(int fd) const {
  FirmwareDigest digest(WantsSha256());
  if (!digest.Begin()) return std::nullopt;
  std::vector<char> block(kBlockBytes);
  for (ssize_t size = 0; (size = ::read(fd, block.data(), block.size())) != 0;) {
    if (size < 0 && errno == EINTR) continue;
    if (size < 0 || (stop_ && stop_())) return std::nullopt;
    digest.Add(block.data(), static_cast<size_t>(size));
  }
  return digest.End();
}

bool FirmwareCheck::IsSigned(const std::string& sha256, const std::string& signature) const {
  const auto bytes = utils::DecodeBase64(signature);
  const Key key = ReadKey(key_file_);
  const VerifyContext context(EVP_MD_CTX_new());
  const bool good =
      key && bytes && context &&
      EVP_DigestVerifyInit(context.get(), nullptr, nullptr, nullptr, key.get()) == 1 &&
      EVP_DigestVerify(context.get(), bytes->data(), bytes->size(),
                       reinterpret_cast<const unsigned char*>(sha256.data()), sha256.size()) == 1;
  if (good) return true;
  VLOG_ERROR(kTag, "CheckFirmwareFile: {}",
             !key ? "the key of the deployment settings cannot be read" : kWrongSignature);
  return false;
}

}  // namespace varnel::service
