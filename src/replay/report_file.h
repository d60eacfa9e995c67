#pragma once

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <system_error>

#include "utils/private_directory.h"

namespace varnel::replay {

/// report.json, written picture by picture, so that a folder of any size needs no more memory than
/// a small one. The file is there when it is whole.
class ReportFile {
 public:
  using Json = nlohmann::ordered_json;

  /// @param head its members begin the report
  ReportFile(const std::filesystem::path& path, const Json& head);

  void AddPicture(const Json& picture);
  /// @param tail its members end the report
  [[nodiscard]] std::error_code Finish(const Json& tail);

 private:
  std::error_code error_;
  std::string name_;
  std::optional<utils::PrivateDirectory> draft_;
  std::ofstream out_;
  bool first_ = true;
};

}  // namespace varnel::replay
