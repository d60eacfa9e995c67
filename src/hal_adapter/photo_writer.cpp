#include "hal_adapter/photo_writer.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <string_view>
#include <system_error>
#include <utility>

#include "utils/atomic_file.h"
#include "utils/last_error.h"
#include "utils/log.h"
#include "utils/log_text.h"
#include "utils/owned.h"
#include "utils/private_directory.h"
#include "utils/safe_exec.h"
#include "utils/write_all.h"

namespace varnel::hal_adapter {
namespace {

namespace fs = std::filesystem;

constexpr const char* kTag = "HALMM";
constexpr std::array<std::string_view, 3> kPictureEndings = {".jpg", ".jpeg", ".png"};
constexpr uint32_t kConvertLimitMs = 30'000;
constexpr mode_t kPhotoMode = 0644;

std::string_view BytesOf(const CameraImage& image) {
  return {reinterpret_cast<const char*>(image.data), image.size};
}

bool IsPicture(std::string_view path) {
  return std::any_of(kPictureEndings.begin(), kPictureEndings.end(),
                     [path](std::string_view ending) { return path.ends_with(ending); });
}

const char* ConverterFormat(uint32_t pixel_format) {
  switch (pixel_format) {
    case CAMERA_PIXEL_FORMAT_NV12:
      return "nv12";
    case CAMERA_PIXEL_FORMAT_YUYV:
      return "yuyv422";
    default:
      return nullptr;
  }
}

/// The frame file lies in a directory that everyone may write to: whatever was put at its name is
/// removed and a new file of our own made, so that a planted link is not followed.
utils::UniqueFd CreatePrivate(const fs::path& path) {
  ::unlink(path.c_str());
  return utils::UniqueFd(
      ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
}

bool Report(const std::error_code& error) {
  if (error) VLOG_ERROR(kTag, "filesystem error: {}", error.message());
  return !error;
}

bool HasContent(int directory, const std::string& name) {
  struct stat info {};
  return ::fstatat(directory, name.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0 && info.st_size > 0;
}

bool WriteRaw(const CameraImage& image, const std::string& name, int directory) {
  const utils::UniqueFd file(
      ::openat(directory, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
  return Report(file ? utils::WriteAll(file.Get(), BytesOf(image)) : utils::LastError());
}

}  // namespace

PhotoWriter::PhotoWriter(PhotoPaths paths, utils::SpaceCheck has_space)
    : paths_(std::move(paths)), has_space_(std::move(has_space)) {}

bool PhotoWriter::HasRoom(const utils::FilePlace& place) const {
  return utils::HasRoom(has_space_, place.Path());
}

PhotoStatus PhotoWriter::Develop(const CameraImage& image, const std::string& name,
                                 utils::UniqueFd& picture) const {
  std::error_code error;
  const auto workshop = utils::PrivateDirectory::Create(paths_.workshop, error);
  if (!Report(error)) return PhotoStatus::kConversionFailed;
  // A '%' in a client's name would be taken for the number pattern of an image sequence.
  const std::string work = "picture" + (IsPicture(name) ? utils::FileEnding(name) : "");
  const bool made = IsPicture(name) ? Convert(image, work, workshop->Fd())
                                    : WriteRaw(image, work, workshop->Fd());
  if (!made) return PhotoStatus::kConversionFailed;
  picture = workshop->OpenResult(work, error);
  return Report(error) ? PhotoStatus::kSuccess : PhotoStatus::kConversionFailed;
}

std::optional<utils::NewFile> PhotoWriter::Begin(const utils::FilePlace& place) const {
  std::error_code error;
  auto file = utils::NewFile::Create(place, error);
  (void)Report(error);
  return file;
}

PhotoStatus PhotoWriter::Store(const utils::UniqueFd& picture, utils::NewFile& file) const {
  std::error_code error = utils::CopyRest(picture.Get(), file.Fd());
  if (!error) error = file.Publish(kPhotoMode);
  return Report(error) ? PhotoStatus::kSuccess : PhotoStatus::kNotWritable;
}

bool PhotoWriter::Convert(const CameraImage& image, const std::string& picture,
                          int directory) const {
  if (!WriteRawFrame(image)) return false;
  // Of who watches the print there are several a second.
  VLOG_DEBUG(kTag, "Convert to JPEG or PNG format.");
  const char* pixel_format = ConverterFormat(image.pixel_format);
  if (pixel_format == nullptr) VLOG_ERROR(kTag, "Unsupported image type");
  return pixel_format != nullptr && RunConverter(pixel_format, picture, directory);
}

bool PhotoWriter::WriteRawFrame(const CameraImage& image) const {
  const utils::UniqueFd file = CreatePrivate(paths_.raw_frame);
  if (!file) {
    VLOG_ERROR(kTag, "Failed to open output file");
    return false;
  }
  return Report(utils::WriteAll(file.Get(), BytesOf(image)));
}

bool PhotoWriter::RunConverter(const char* pixel_format, const std::string& picture,
                               int directory) const {
  utils::SafeExec command(paths_.converter);
  for (const char* argument :
       {"-y", "-v", "error", "-f", "rawvideo", "-pix_fmt", pixel_format, "-s", "1920x1080", "-i",
        paths_.raw_frame.c_str(), "-frames:v", "1"}) {
    command.AddArg(argument);
  }
  command.AddArg(picture).SetWorkingDir(directory).SetTimeout(kConvertLimitMs);
  const auto run = command.TryExecute();
  if (!run) {
    VLOG_ERROR(kTag, "Execute fatal error: {}", run.Why());
    return false;
  }
  if (run->success && HasContent(directory, picture)) return true;
  VLOG_ERROR(kTag, "Execute error, code is {}", run->exit_code);
  VLOG_ERROR(
      kTag, "{}: {}",
      "Command '" + command.ToString() + "' failed with code " + std::to_string(run->exit_code),
      utils::LogText(run->standard_error));
  return false;
}

}  // namespace varnel::hal_adapter
