#include "service/cloud/upload/upload_source.h"

#include <fcntl.h>
#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <utility>
#include <vector>

#include "utils/base64.h"
#include "utils/last_error.h"

namespace varnel::service {
namespace {

constexpr size_t kPieceBytes = size_t{256} << 10U;

bool SameTime(const timespec& a, const timespec& b) {
  return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

bool IsSameFile(const struct stat& a, const struct stat& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

using DigestContext = utils::Owned<EVP_MD_CTX, EVP_MD_CTX_free>;

}  // namespace

std::optional<UploadSource> UploadSource::Open(const std::filesystem::path& path,
                                               std::error_code& error) {
  struct stat info {};
  // A pipe would be waited for.
  utils::UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (!fd || ::fstat(fd.Get(), &info) != 0) {
    error = utils::LastError();
    return std::nullopt;
  }
  if (!S_ISREG(info.st_mode)) {
    error = std::make_error_code(std::errc::invalid_argument);
    return std::nullopt;
  }
  return UploadSource(path, std::move(fd), info);
}

UploadSource::State UploadSource::Look(uint64_t needed_bytes) const {
  struct stat named {};
  struct stat held {};
  if (::stat(path_.c_str(), &named) != 0 || ::fstat(fd_.Get(), &held) != 0 ||
      !IsSameFile(named, held))
    return State::kGone;
  if (static_cast<uint64_t>(held.st_size) < needed_bytes) return State::kShortened;
  // Whoever sets the time of the content back cannot do so with that of the change.
  const bool same = held.st_size == first_.st_size && SameTime(held.st_mtim, first_.st_mtim) &&
                    SameTime(held.st_ctim, first_.st_ctim);
  return same ? State::kSame : State::kChanged;
}

bool UploadSource::Read(uint64_t offset, char* buffer, size_t room) const {
  size_t done = 0;
  while (done < room) {
    const ssize_t got =
        ::pread(fd_.Get(), buffer + done, room - done, static_cast<off_t>(offset + done));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return false;
    done += static_cast<size_t>(got);
  }
  return true;
}

std::optional<std::string> UploadSource::Checksum(uint64_t offset, uint64_t length,
                                                  const TransferStop& stop) const {
  const DigestContext digest(EVP_MD_CTX_new());
  if (!digest || EVP_DigestInit_ex(digest.get(), EVP_sha256(), nullptr) != 1) return std::nullopt;
  std::vector<char> piece(std::min<uint64_t>(kPieceBytes, length));
  for (uint64_t done = 0; done < length;) {
    const size_t size = std::min<uint64_t>(piece.size(), length - done);
    if ((stop && stop()) || !Read(offset + done, piece.data(), size)) return std::nullopt;
    if (EVP_DigestUpdate(digest.get(), piece.data(), size) != 1) return std::nullopt;
    done += size;
  }
  std::array<unsigned char, EVP_MAX_MD_SIZE> value{};
  unsigned int size = 0;
  if (EVP_DigestFinal_ex(digest.get(), value.data(), &size) != 1) return std::nullopt;
  return utils::EncodeBase64({value.data(), size});
}

}  // namespace varnel::service
