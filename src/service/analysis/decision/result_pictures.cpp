#include "service/analysis/decision/result_pictures.h"

#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <string_view>
#include <system_error>
#include <utility>

#include "service/analysis/picture/analysis_log.h"
#include "service/analysis/picture/image_files.h"
#include "utils/atomic_file.h"
#include "utils/log.h"

namespace varnel::service {
namespace {

namespace fs = std::filesystem;

constexpr const char* kTag = kAnalysisTag;

/// Not synced: the loss of a diagnostic picture at a power failure is no harm, and the wait would
/// be longer than the detection.
bool CopyFile(const std::string& from, const std::string& to) {
  std::error_code error;
  if (fs::copy_file(from, to, fs::copy_options::overwrite_existing, error)) return true;
  ::unlink(to.c_str());  // half of it may be there, when the disk is full for example
  return false;
}

bool CopyBeginning(const std::string& from, const std::string& to) {
  std::string bytes(ResultPictures::kMaxUnreadable, '\0');
  std::ifstream file(from, std::ios::binary);
  file.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  const std::string_view read(bytes.data(), static_cast<size_t>(file.gcount()));
  return !utils::WriteFileAtomically(to, read, 0644, utils::Durability::kCrash);
}

PictureDirectory::Writer CopyOf(const std::string& from) {
  return [&from](const std::string& to) { return CopyFile(from, to); };
}

/// One file under two names: result pictures are never changed, and flash memory is written once.
PictureDirectory::Writer SameAs(const std::string& from) {
  return [&from](const std::string& to) {
    return ::link(from.c_str(), to.c_str()) == 0 || CopyFile(from, to);
  };
}

PictureDirectory::Writer Encoding(const ImageBuffer& picture) {
  return [&picture](const std::string& to) {
    return write_image_jpeg(to, kJpegQuality, picture) == 0;
  };
}

}  // namespace

ResultPictures::ResultPictures(fs::path base, utils::SpaceCheck has_space)
    : base_(std::move(base)), has_space_(std::move(has_space)) {}

void ResultPictures::CreateDirectories() {
  org_ = Create(base_ / "org");
  det_ = Create(base_ / "det");
  crop_ = Create(base_ / "crop");
  positive_det_ = Create(base_ / "positive" / "det");
  positive_org_ = Create(base_ / "positive" / "org");
}

PictureDirectory ResultPictures::Create(const fs::path& path) {
  std::error_code error;
  fs::create_directories(path, error);
  if (!error) return PictureDirectory(path);
  VLOG_ERROR(kTag, "Create detect result directory {} failed, reason: {}", path.string(),
             error.message());
  return PictureDirectory();
}

void ResultPictures::BeginPicture() {
  numbered_ = false;
  crops_ = 0;
}

/// The picture gets its number with the first file that is kept of it.
std::string ResultPictures::Name() {
  if (std::exchange(numbered_, true)) return PictureName(last_number_);
  for (PictureDirectory* directory : {&org_, &det_, &crop_, &positive_org_, &positive_det_})
    last_number_ = std::max(last_number_, directory->HighestNumber());
  return PictureName(++last_number_);
}

void ResultPictures::Save(const std::string& source, const ImageBuffer* annotated,
                          const PictureSaving& saving) {
  if (saving.limit == 0 || !HasSpace()) return;
  const std::string name = Name();
  const std::string org_name = name + ".org.jpg";
  const std::string det_name = name + ".det.jpg";
  const std::string org =
      saving.original ? org_.Add(org_name, saving.limit, CopyOf(source)) : std::string();
  const auto captured = org.empty() ? CopyOf(source) : SameAs(org);
  const std::string det =
      det_.Add(det_name, saving.limit, annotated == nullptr ? captured : Encoding(*annotated));
  if (!saving.positive) return;
  if (saving.original) positive_org_.Add(org_name, saving.limit, captured);
  const auto drawn = annotated == nullptr ? captured : Encoding(*annotated);
  positive_det_.Add(det_name, saving.limit, det.empty() ? drawn : SameAs(det));
}

void ResultPictures::SaveUnreadable(const std::string& source, const PictureSaving& saving) {
  std::error_code error;
  if (!saving.original || saving.limit == 0 || !fs::is_regular_file(source, error) || !HasSpace())
    return;
  org_.Add(Name() + ".org.jpg", saving.limit,
           [&source](const std::string& to) { return CopyBeginning(source, to); });
}

void ResultPictures::SaveCrop(const ImageBuffer& crop, const std::string& suffix, size_t limit) {
  if (crop_.Count() >= limit || !HasSpace()) return;
  const std::string place = ++crops_ == 1 ? "" : "." + std::to_string(crops_);
  crop_.Add(Name() + place + suffix + ".jpg", limit, Encoding(crop));
}

}  // namespace varnel::service
