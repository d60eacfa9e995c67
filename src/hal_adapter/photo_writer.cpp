#include "hal_adapter/photo_writer.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <optional>
#include <string_view>
#include <system_error>
#include <utility>

#include "utils/atomic_file.h"
#include "utils/log.h"
#include "utils/log_text.h"
#include "utils/owned.h"
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

void ReportFileError(const std::error_code& error) {
  VLOG_ERROR(kTag, "filesystem error: {}", error.message());
}

bool HasContent(const fs::path& path) {
  std::error_code error;
  const uintmax_t size = fs::file_size(path, error);
  return !error && size > 0;
}

}  // namespace

PhotoWriter::PhotoWriter(PhotoPaths paths, SpaceCheck has_space)
    : paths_(std::move(paths)), has_space_(std::move(has_space)) {}

PhotoStatus PhotoWriter::Write(const CameraImage& image, const fs::path& destination) const {
  if (!has_space_(destination)) return PhotoStatus::kNotWritable;
  if (IsPicture(destination.native())) return Convert(image, destination);
  const std::error_code error = utils::WriteFileAtomically(destination, BytesOf(image), kPhotoMode);
  if (!error) return PhotoStatus::kSuccess;
  ReportFileError(error);
  return PhotoStatus::kNotWritable;
}

PhotoStatus PhotoWriter::Convert(const CameraImage& image, const fs::path& destination) const {
  if (!WriteRawFrame(image)) return PhotoStatus::kConversionFailed;
  VLOG_INFO(kTag, "Convert to JPEG or PNG format.");
  const char* pixel_format = ConverterFormat(image.pixel_format);
  if (pixel_format == nullptr) {
    VLOG_ERROR(kTag, "Unsupported image type");
    return PhotoStatus::kConversionFailed;
  }
  std::error_code error;
  std::optional<utils::ReplacementFile> output =
      utils::ReplacementFile::Create(destination, kPhotoMode, error);
  if (!output) {
    ReportFileError(error);
    return PhotoStatus::kNotWritable;
  }
  if (!RunConverter(pixel_format, output->TemporaryPath())) return PhotoStatus::kConversionFailed;
  error = output->Commit();
  if (!error) return PhotoStatus::kSuccess;
  ReportFileError(error);
  return PhotoStatus::kNotWritable;
}

bool PhotoWriter::WriteRawFrame(const CameraImage& image) const {
  const utils::UniqueFd file = CreatePrivate(paths_.raw_frame);
  if (!file) {
    VLOG_ERROR(kTag, "Failed to open output file");
    return false;
  }
  const std::error_code error = utils::WriteAll(file.Get(), BytesOf(image));
  if (error) ReportFileError(error);
  return !error;
}

/// Names the output relative to its directory: a '%' in the directory's name would otherwise be
/// taken for the number pattern of an image sequence.
bool PhotoWriter::RunConverter(const char* pixel_format, const fs::path& output) const {
  utils::SafeExec command(paths_.converter);
  for (const char* argument :
       {"-y", "-v", "error", "-f", "rawvideo", "-pix_fmt", pixel_format, "-s", "1920x1080", "-i",
        paths_.raw_frame.c_str(), "-frames:v", "1"}) {
    command.AddArg(argument);
  }
  command.AddArg(output.filename()).SetWorkingDir(output.parent_path());
  command.SetTimeout(kConvertLimitMs);
  try {
    const utils::SafeExec::Result result = command.Execute();
    if (result.success && HasContent(output)) return true;
    VLOG_ERROR(kTag, "Execute error, code is {}", result.exit_code);
    VLOG_ERROR(
        kTag, "{}: {}",
        "Command '" + command.ToString() + "' failed with code " + std::to_string(result.exit_code),
        utils::LogText(result.standard_error));
  } catch (const utils::SafeExecException& error) {
    VLOG_ERROR(kTag, "Execute fatal error: {}", error.what());
  }
  return false;
}

}  // namespace varnel::hal_adapter
