#include "service/analysis/result_pictures.h"

#include <unistd.h>

#include <algorithm>
#include <system_error>
#include <utility>

#include "service/analysis/analysis_log.h"
#include "service/analysis/image_files.h"
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

ResultPictures::ResultPictures(fs::path base, SpaceCheck has_space)
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

uint64_t ResultPictures::NextNumber() {
  for (PictureDirectory* directory : {&org_, &det_, &crop_, &positive_org_, &positive_det_})
    last_number_ = std::max(last_number_, directory->HighestNumber());
  return ++last_number_;
}

void ResultPictures::Save(const std::string& source, const ImageBuffer* annotated,
                          const PictureSaving& saving) {
  if (saving.limit == 0 || !HasSpace()) return;
  const std::string name = PictureName(NextNumber());
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

void ResultPictures::SaveCrop(const ImageBuffer& crop, const std::string& suffix, size_t limit) {
  if (crop_.Count() >= limit || !HasSpace()) return;
  crop_.Add(PictureName(NextNumber()) + suffix + ".jpg", limit, Encoding(crop));
}

}  // namespace varnel::service
