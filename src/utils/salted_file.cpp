#include "utils/salted_file.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <string>
#include <string_view>
#include <system_error>

#include "utils/crypto_failure.h"
#include "utils/last_error.h"
#include "utils/owned.h"
#include "utils/write_all.h"
#include "utils/write_behind.h"

namespace varnel::utils {
namespace {

namespace fs = std::filesystem;
using CipherContext = Owned<EVP_CIPHER_CTX, EVP_CIPHER_CTX_free>;

constexpr size_t kChunkSize = 65536;
constexpr size_t kIvOffset = 32;
constexpr std::string_view kMagic = "Salted__";
constexpr const char* kNotRegular = "not a regular file";
constexpr const char* kSetUpFailed = "Set up the encryption context failed";
constexpr const char* kInitializeFailed = "Initialize encryption operation failed";
constexpr const char* kUpdateFailed = "Encryption update failed";
constexpr const char* kFinalizationFailed = "Encryption finalization failed";

const uint8_t* Bytes(const char* text) {
  return reinterpret_cast<const uint8_t*>(text);
}

uint8_t* Bytes(char* text) {
  return reinterpret_cast<uint8_t*>(text);
}

std::string CheckRegular(const UniqueFd& fd) {
  struct stat info {};
  if (!fd || ::fstat(fd.Get(), &info) != 0) {
    return LastError().message();
  }
  return S_ISREG(info.st_mode) ? "" : kNotRegular;
}

UniqueFd OpenInput(const fs::path& path) {
  // Non-blocking, so that a FIFO in the file's place cannot hang the caller.
  UniqueFd fd(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  const std::string reason = CheckRegular(fd);
  if (!reason.empty()) {
    ThrowCryptoFailure("Open file " + path.string() + " failed", reason);
  }
  return fd;
}

/// Takes away what the new file replaces: never a device, and never the input, which would be lost
/// if anything failed later.
std::string MakeRoom(const fs::path& path, const UniqueFd& input) {
  struct stat source {};
  struct stat old {};
  if (::lstat(path.c_str(), &old) != 0) {
    return errno == ENOENT ? "" : LastError().message();
  }
  if (!S_ISREG(old.st_mode) && !S_ISLNK(old.st_mode)) {
    return kNotRegular;
  }
  if (::fstat(input.Get(), &source) != 0 ||
      (source.st_dev == old.st_dev && source.st_ino == old.st_ino)) {
    return "the same file as the input";
  }
  return ::unlink(path.c_str()) == 0 ? "" : LastError().message();
}

UniqueFd CreateOutput(const fs::path& path, const UniqueFd& input, std::string_view header) {
  std::string reason = MakeRoom(path, input);
  UniqueFd fd;
  if (reason.empty()) {
    fd.Reset(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    reason = fd ? "" : LastError().message();
  }
  if (fd) {
    const std::error_code error = WriteAll(fd.Get(), header);
    reason = error ? error.message() : "";
  }
  if (!reason.empty()) {
    ThrowCryptoFailure("Create file " + path.string() + " failed", reason);
  }
  return fd;
}

CipherContext StartCipher(const SecretString& key) {
  CipherContext context(EVP_CIPHER_CTX_new());
  if (!context) {
    ThrowCryptoFailure(kSetUpFailed);
  }
  const uint8_t* bytes = Bytes(key.Text().data());
  if (key.Text().size() != kFileKeySize ||
      EVP_EncryptInit_ex(context.get(), EVP_aes_256_cbc(), nullptr, bytes, bytes + kIvOffset) !=
          1) {
    ThrowCryptoFailure(kInitializeFailed);
  }
  return context;
}

/// The thread that writes is as much a part of the set-up as the cipher.
std::unique_ptr<WriteBehind> StartWriter(const UniqueFd& output) {
  try {
    return std::make_unique<WriteBehind>(output.Get(), kChunkSize + EVP_MAX_BLOCK_LENGTH);
  } catch (const std::system_error& error) {
    ThrowCryptoFailure(kSetUpFailed, error.what());
  }
}

/// 0 at the end of the file.
size_t ReadChunk(const UniqueFd& input, SecretString& chunk) {
  ssize_t got = 0;
  do {
    got = ::read(input.Get(), chunk.Data(), kChunkSize);
  } while (got < 0 && errno == EINTR);
  if (got < 0) {
    ThrowCryptoFailure(kUpdateFailed, LastError().message());
  }
  return static_cast<size_t>(got);
}

void Drain(WriteBehind& writer, const char* text) {
  if (const std::error_code error = writer.Finish()) {
    ThrowCryptoFailure(text, error.message());
  }
}

/// The block that the next output goes to; throws what failed when one before was not written.
uint8_t* NextBlock(WriteBehind& writer) {
  char* block = writer.NextBlock();
  if (block == nullptr) {
    Drain(writer, kUpdateFailed);
  }
  return Bytes(block);
}

void EncryptContent(EVP_CIPHER_CTX* context, const UniqueFd& input, WriteBehind& writer) {
  SecretString chunk(kChunkSize);
  int size = 0;
  while (const size_t got = ReadChunk(input, chunk)) {
    if (EVP_EncryptUpdate(context, NextBlock(writer), &size, Bytes(chunk.Data()),
                          static_cast<int>(got)) != 1) {
      ThrowCryptoFailure(kUpdateFailed);
    }
    writer.Put(static_cast<size_t>(size));
  }
  Drain(writer, kUpdateFailed);
}

void EncryptPadding(EVP_CIPHER_CTX* context, WriteBehind& writer) {
  int size = 0;
  if (EVP_EncryptFinal_ex(context, NextBlock(writer), &size) != 1) {
    ThrowCryptoFailure(kFinalizationFailed);
  }
  writer.Put(static_cast<size_t>(size));
  Drain(writer, kFinalizationFailed);
}

}  // namespace

void WriteSaltedFile(const fs::path& input, const fs::path& output, std::span<const uint8_t> salt,
                     const SecretString& key) {
  std::string header(kMagic);
  header.append(salt.begin(), salt.end());
  const UniqueFd source = OpenInput(input);
  UniqueFd target = CreateOutput(output, source, header);
  const CipherContext context = StartCipher(key);
  const auto writer = StartWriter(target);
  EncryptContent(context.get(), source, *writer);
  EncryptPadding(context.get(), *writer);
  // Some file systems tell only now that they could not take everything.
  if (::close(target.Release()) != 0) {
    ThrowCryptoFailure(kFinalizationFailed, LastError().message());
  }
}

}  // namespace varnel::utils
