#include "service/camera/timelapse/films/timelapse_upload.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <system_error>

#include "service/camera/timelapse/disk/work_directory.h"
#include "utils/descriptor_path.h"
#include "utils/free_space.h"
#include "utils/log.h"
#include "utils/log_text.h"
#include "utils/openssl_crypto.h"
#include "utils/random_password.h"

namespace varnel::service {
namespace {

namespace fs = std::filesystem;
using hal_adapter::HalStatus;

constexpr const char* kTag = "TLP";
constexpr size_t kPasswordBytes = 16;
constexpr uint32_t kIterations = 10'000;

/// The encrypted file on its way; gone at the end of the upload.
class TemporaryFile {
 public:
  explicit TemporaryFile(fs::path path) : path_(std::move(path)) {}
  ~TemporaryFile() {
    std::error_code error;
    fs::remove(path_, error);
    if (error) {
      VLOG_ERROR(kTag, "Delete temporary file '{}' failed, reason: {}", path_.string(),
                 error.message());
    }
  }
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;

  const fs::path& Path() const { return path_; }

 private:
  const fs::path path_;
};

/// Empty when the record names none.
std::string SourceIn(const nlohmann::json& record, const std::string& type) {
  const auto value = record.find(type == "video" ? "video_path" : "thumbnail_path");
  return value != record.end() && value->is_string() ? value->get<std::string>() : std::string();
}

/// The description file can be changed by others: nothing else of the board is sent away, whatever
/// its names lead to a moment later.
utils::UniqueFd OpenOfTheStore(const TimelapsePaths& paths, const fs::path& source) {
  std::error_code error;
  const fs::path root = fs::canonical(paths.root, error);
  if (error) return {};
  utils::UniqueFd file(::open(source.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  struct stat info {};
  if (!file || ::fstat(file.Get(), &info) != 0 || !S_ISREG(info.st_mode)) return {};
  const fs::path real = fs::read_symlink(utils::DescriptorPath(file.Get()), error);
  return !error && real.string().starts_with(root.string() + '/') ? std::move(file)
                                                                  : utils::UniqueFd();
}

bool MakePrivateDirectory(const fs::path& directory) {
  std::error_code error;
  fs::create_directories(directory.parent_path(), error);
  if (::mkdir(directory.c_str(), 0700) == 0) return true;
  struct stat info {};
  return errno == EEXIST && ::lstat(directory.c_str(), &info) == 0 && S_ISDIR(info.st_mode) &&
         info.st_uid == ::geteuid() && ::chmod(directory.c_str(), 0700) == 0;
}

std::string Hex(const std::vector<uint8_t>& bytes) {
  std::string text;
  for (const uint8_t byte : bytes) text += fmt::format("{:02x}", byte);
  return text;
}

bool LogProgress(uint64_t sent, uint64_t all) {
  VLOG_INFO(kTag, "Upload timelapse progress: {}% ({}/{})", all == 0 ? 100 : sent * 100 / all, sent,
            all);
  return true;
}

}  // namespace

/// Throws std::runtime_error with a text for the log.
void FilmUploads::Encrypt(const Film& film, utils::OpenSSLCrypto& crypto, const fs::path& target) {
  const utils::MutexLock lock(copy_mutex_);
  if (!MakePrivateDirectory(paths_.upload))
    throw std::runtime_error("Create file " + target.string() + " failed");
  std::error_code error;
  const fs::path source = utils::DescriptorPath(film.file.Get());
  const uint64_t size = fs::file_size(source, error);
  // The copy is as large as the film, but for what rounds it up.
  const auto has_room = [&](uint64_t bytes) {
    return utils::EnoughFreeSpace(paths_.upload, paths_.min_free_bytes + bytes);
  };
  if (error || !has_room(size)) throw std::runtime_error("No room in " + paths_.upload.string());
  crypto.EncryptFile(source, target);
  // Others may have written meanwhile.
  if (!has_room(0)) throw std::runtime_error("No room left in " + paths_.upload.string());
}

UploadResult FilmUploads::EncryptAndSend(const Film& film) {
  const std::string ending = film.type == "video" ? ".mp4.enc" : ".jpg.enc";
  // Two uploads of one film do not share a file.
  const TemporaryFile encrypted(
      paths_.upload /
      (film.index + '_' + utils::RandomPassword("hex", 4) + "_timelapse_enc" + ending));
  utils::OpenSSLCrypto crypto(film.index + "_timelapse_enc",
                              utils::RandomPassword("hex", kPasswordBytes), kIterations,
                              utils::SaltMode::kRandomPerFile, {});
  try {
    Encrypt(film, crypto, encrypted.Path());
  } catch (const std::runtime_error& error) {
    VLOG_ERROR(kTag, "Encrypt {} failed: {}", film.source, error.what());
    return HalStatus::kFailure;
  }
  VLOG_INFO(kTag, "Push {} {} to cloud server.", film.type, film.source);
  const auto url = uploader_.Upload({.file = encrypted.Path(),
                                     .name = encrypted.Path().filename().string(),
                                     .log = true,
                                     .progress = LogProgress});
  if (!url) return HalStatus::kFailure;
  return UploadedFilm{*url, std::string(crypto.Password()), crypto.Iterations(),
                      Hex(crypto.Salt())};
}

UploadResult FilmUploads::Upload(const std::string& index, const std::string& type) {
  if (type != "video" && type != "thumbnail") {
    VLOG_ERROR(kTag, "File type is not 'video' or 'thumbnail', do nothing.");
    return HalStatus::kFailure;
  }
  const auto record = store_.Find(index);
  if (!record) return record.Why();
  const std::string source = SourceIn(*record, type);
  // It becomes part of a file's name.
  if (!IsTimelapseIndex(index)) return HalStatus::kInvalidParameter;
  if (source.empty()) {
    VLOG_ERROR(kTag, "Source path for {} is empty, cannot upload.", type);
    return HalStatus::kFailure;
  }
  auto file = OpenOfTheStore(paths_, source);
  if (!file) {
    VLOG_ERROR(kTag, "File {} is not ready.", utils::LogText(source));
    return HalStatus::kFileNotFound;
  }
  if (!uploader_.HasAccess()) {
    VLOG_ERROR(kTag, "Cloud access code is unavailable.");
    return HalStatus::kFailure;
  }
  const auto permit = permits_.TryTake();
  if (!permit) {
    VLOG_ERROR(kTag, "{} films are being uploaded already, do nothing.", kMaxUploads);
    return HalStatus::kFailure;
  }
  return EncryptAndSend({index, type, source, std::move(file)});
}

}  // namespace varnel::service
