#include "service/system/upgrade/firmware_check.h"

#include <fcntl.h>
#include <fmt/format.h>
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
constexpr size_t kBlockBytes = size_t{1} << 20U;

using Context = utils::Owned<EVP_MD_CTX, EVP_MD_CTX_free>;
using Key = utils::Owned<EVP_PKEY, EVP_PKEY_free>;

/// A running digest. Null when the crypto library has none, which is logged.
Context Begin(const EVP_MD* kind) {
  Context context(EVP_MD_CTX_new());
  if (!context) {
    VLOG_ERROR(kTag, "CheckFirmwareFile: failed to create EVP_MD_CTX");
  } else if (EVP_DigestInit_ex(context.get(), kind, nullptr) != 1) {
    VLOG_ERROR(kTag, "CheckFirmwareFile: EVP_DigestInit_ex failed");
    context.reset();
  }
  return context;
}

std::string End(const Context& context) {
  std::string digest(EVP_MAX_MD_SIZE, '\0');
  unsigned size = 0;
  if (EVP_DigestFinal_ex(context.get(), reinterpret_cast<unsigned char*>(digest.data()), &size) !=
      1)
    size = 0;
  digest.resize(size);
  return digest;
}

std::string Hex(const std::string& bytes) {
  std::string text;
  for (const char byte : bytes) text += fmt::format("{:02x}", static_cast<unsigned char>(byte));
  return text;
}

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
  const std::string name = utils::LogText(file.string());
  struct stat info {};
  if (::lstat(file.c_str(), &info) != 0) {
    VLOG_WARN(kTag, "File {} not found, reason is {}", name, utils::LastError().message());
    return false;
  }
  const utils::UniqueFd fd(::open(file.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!fd || ::fstat(fd.Get(), &info) != 0 || !S_ISREG(info.st_mode)) {
    VLOG_ERROR(kTag, "CheckFirmwareFile: cannot open file {}", name);
    return false;
  }
  if (static_cast<uint64_t>(info.st_size) != description.size) {
    VLOG_ERROR(kTag, "The file sizes are not equal, expect: {}, actual: {}", description.size,
               info.st_size);
    return false;
  }
  if (reading == Reading::kOnceAFile && IsKnown(info, description)) return true;
  if (!HasRightBytes(fd.Get(), description)) return false;
  struct stat after {};
  if (::fstat(fd.Get(), &after) != 0 || !IsSameFile(info, after)) return false;
  const utils::MutexLock lock(mutex_);
  known_ = Known{info, description};
  return true;
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

bool FirmwareCheck::HasRightBytes(int fd, const FirmwareDescription& description) const {
  const Context md5 = Begin(EVP_md5());
  const Context sha256 = key_file_.empty() ? nullptr : Begin(EVP_sha256());
  if (!md5 || (!sha256 && !key_file_.empty())) return false;
  std::vector<char> block(kBlockBytes);
  for (ssize_t size = 0; (size = ::read(fd, block.data(), block.size())) != 0;) {
    if (size < 0 && errno == EINTR) continue;
    if (size < 0 || (stop_ && stop_())) return false;
    for (const Context* context : {&md5, &sha256})
      if (*context) EVP_DigestUpdate(context->get(), block.data(), static_cast<size_t>(size));
  }
  const std::string found = Hex(End(md5));
  if (found != description.md5) {
    VLOG_ERROR(kTag, "The file MD5 are not equal, expect: {}, actual: {}", description.md5, found);
    return false;
  }
  return key_file_.empty() || IsSigned(End(sha256), description.signature);
}

bool FirmwareCheck::IsSigned(const std::string& sha256, const std::string& signature) const {
  const auto bytes = utils::DecodeBase64(signature);
  const Key key = ReadKey(key_file_);
  const Context context(EVP_MD_CTX_new());
  const bool good =
      key && bytes && context &&
      EVP_DigestVerifyInit(context.get(), nullptr, nullptr, nullptr, key.get()) == 1 &&
      EVP_DigestVerify(context.get(), bytes->data(), bytes->size(),
                       reinterpret_cast<const unsigned char*>(sha256.data()), sha256.size()) == 1;
  if (good) return true;
  VLOG_ERROR(kTag, "CheckFirmwareFile: {}",
             !key ? "the key of the deployment settings cannot be read" : "the signature is wrong");
  return false;
}

}  // namespace varnel::service
