#include "replay/report_file.h"

#include <string>

namespace varnel::replay {
namespace {

/// File names need not be UTF-8.
std::string Text(const ReportFile::Json& json, int indent = -1) {
  return json.dump(indent, ' ', false, ReportFile::Json::error_handler_t::replace);
}

/// The members of an object without its braces, a line each; empty objects have none.
std::string Members(const ReportFile::Json& object) {
  std::string text;
  for (const auto& [key, value] : object.items())
    text += (text.empty() ? "" : ",\n") + Text(key) + ": " + Text(value, 1);
  return text;
}

std::filesystem::path DirectoryOf(const std::filesystem::path& path) {
  return path.has_parent_path() ? path.parent_path() : ".";
}

}  // namespace

ReportFile::ReportFile(const std::filesystem::path& path, const Json& head)
    : name_(path.filename()), draft_(utils::PrivateDirectory::Create(DirectoryOf(path), error_)) {
  if (!draft_) return;
  out_.open(draft_->PathOf(name_), std::ios::binary);
  out_ << "{\n" << Members(head) << ",\n\"pictures\": [";
}

void ReportFile::AddPicture(const Json& picture) {
  out_ << (first_ ? "\n" : ",\n") << Text(picture);
  first_ = false;
}

std::error_code ReportFile::Finish(const Json& tail) {
  if (!draft_) return error_;
  out_ << "\n],\n" << Members(tail) << "\n}\n";
  out_.close();
  if (!out_) return std::make_error_code(std::errc::io_error);
  return draft_->Publish(name_, name_, 0644);
}

}  // namespace varnel::replay
