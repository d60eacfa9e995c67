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

}  // namespace

ReportFile::ReportFile(const std::filesystem::path& path, const Json& head)
    : file_(utils::ReplacementFile::Create(path, 0644, error_)) {
  if (!file_) return;
  out_.open(file_->TemporaryPath(), std::ios::binary);
  out_ << "{\n" << Members(head) << ",\n\"pictures\": [";
}

void ReportFile::AddPicture(const Json& picture) {
  out_ << (first_ ? "\n" : ",\n") << Text(picture);
  first_ = false;
}

std::error_code ReportFile::Finish(const Json& tail) {
  if (!file_) return error_;
  out_ << "\n],\n" << Members(tail) << "\n}\n";
  out_.close();
  if (!out_) return std::make_error_code(std::errc::io_error);
  return file_->Commit();
}

}  // namespace varnel::replay
