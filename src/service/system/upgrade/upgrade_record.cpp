#include "service/system/upgrade/upgrade_record.h"

#include <algorithm>
#include <cctype>
#include <nlohmann/json.hpp>

#include "utils/atomic_file.h"

namespace varnel::service {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

constexpr size_t kMaxBytes = size_t{64} << 10U;

bool IsProcess(const fs::path& entry) {
  const std::string name = entry.filename().string();
  return std::all_of(name.begin(), name.end(),
                     [](unsigned char c) { return std::isdigit(c) != 0; });
}

}  // namespace

bool UpgradeRecord::Save(const fs::path& file) const {
  const json record = {{"package", package},
                       {"fullversion", fullversion},
                       {"expected", expected},
                       {"outcome", outcome}};
  const std::string text = record.dump(-1, ' ', false, json::error_handler_t::replace);
  return !utils::WriteFileAtomically(file, text + '\n', 0600);
}

std::optional<UpgradeRecord> UpgradeRecord::Load(const fs::path& file) {
  const auto text = utils::ReadSmallFile(file, kMaxBytes);
  const json record = text ? json::parse(*text, nullptr, false) : json();
  if (!record.is_object()) return std::nullopt;
  try {
    return UpgradeRecord{record.at("package"), record.at("fullversion"), record.at("expected"),
                         record.at("outcome")};
  } catch (const json::exception&) {
    return std::nullopt;
  }
}

bool IsThisVersion(const std::string& local, const std::string& remote) {
  constexpr size_t kCut = 32;
  return !local.empty() && (local == remote || (local.size() >= kCut && remote.starts_with(local)));
}

std::string UpgradeRecord::OutcomeAt(const std::string& now) const {
  if (!outcome.empty() && (outcome != "success" || expected.empty())) return outcome;
  const bool is_another = !fullversion.empty() && !now.empty() && now != fullversion;
  return (expected.empty() ? is_another : IsThisVersion(now, expected)) ? "success" : "";
}

bool IsUpgradeRunning(const std::string& package, const fs::path& proc) {
  using namespace std::string_literals;
  const std::string beginning = "systemUpgrade.sh\0upgrade\0all\0"s;
  const std::string end = package.empty() ? "" : '\0' + package + '\0';
  std::error_code error;
  fs::directory_iterator entry(proc, error);
  for (; !error && entry != fs::directory_iterator(); entry.increment(error)) {
    if (!IsProcess(entry->path())) continue;
    const auto command = utils::ReadSmallFile(entry->path() / "cmdline", kMaxBytes);
    if (command && command->find(beginning) != std::string::npos && command->ends_with(end))
      return true;
  }
  return false;
}

}  // namespace varnel::service
