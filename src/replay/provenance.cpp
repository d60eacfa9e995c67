#include "replay/provenance.h"

#include <dlfcn.h>
#include <fmt/chrono.h>
#include <algorithm>
#include <array>

#include "replay/report_json.h"
#include "utils/clock.h"
#include "utils/file_digest.h"

namespace varnel::replay {

namespace {

template <class Letters>
std::string Text(const Letters& answer) {
  return {std::begin(answer), std::find(std::begin(answer), std::end(answer), '\0')};
}

namespace fs = std::filesystem;
using Json = nlohmann::ordered_json;

Json DigestJson(const std::string& name, const utils::FileDigest& digest) {
  return {{"file", name}, {"bytes", digest.bytes}, {"sha256", digest.sha256}};
}

Json FileJson(const fs::path& file, const std::string& name) {
  return DigestJson(name, utils::DigestOf(file));
}

Json LabelsJson(const Options& options, const Input& input) {
  if (!input.labels) return {};
  return DigestJson(options.labels.string(), input.labels_digest);
}

Json NetworksJson(const PictureJudge& judge) {
  Json networks = Json::array();
  for (const std::string& name : judge.Networks())
    networks.push_back(FileJson(judge.Models() / name, name));
  return networks;
}

Json RuntimeJson(const service::RknnLibrary& library, const fs::path& network) {
  const fs::path file = RuntimeFile(library);
  Json json = file.empty() ? Json::object() : FileJson(file, file.string());
  const auto version = AskVersion(library, network);
  json["version"] = version ? Json(version->runtime) : Json();
  json["driver"] = version ? Json(version->driver) : Json();
  return json;
}

const char* ModeOf(const Options& options) {
  if (options.independent) return "independent";
  return options.prints ? "prints" : "print";
}

std::string Today() {
  const auto now = utils::SystemClock::Instance().WallNow();
  return fmt::format("{:%FT%TZ}", fmt::gmtime(std::chrono::system_clock::to_time_t(now)));
}

}  // namespace

std::filesystem::path RuntimeFile(const service::RknnLibrary& library) {
  Dl_info info{};
  const auto* address = reinterpret_cast<const void*>(library.Api()->init);
  if (::dladdr(address, &info) == 0 || info.dli_fname == nullptr) return {};
  return info.dli_fname;
}

std::optional<RuntimeVersion> AskVersion(const service::RknnLibrary& library,
                                         const std::filesystem::path& network) {
  const service::RknnApi& api = *library.Api();
  std::string path = network.string();
  service::RknnHandle handle = 0;
  if (api.init(&handle, path.data(), 0, 0, nullptr) != service::kRknnSuccess) return std::nullopt;
  service::RuntimeVersions answer{};
  const int code = api.query(handle, service::RknnQuery::kVersions, &answer, sizeof answer);
  api.destroy(handle);
  if (code != service::kRknnSuccess) return std::nullopt;
  return RuntimeVersion{Text(answer.runtime), Text(answer.driver)};
}

Json HeadJson(const Options& options, const Input& input, const PictureJudge& judge,
              const service::RknnLibrary& library) {
  Json head = {{"algorithm", options.algorithm->name},
               {"mode", ModeOf(options)},
               {"date", Today()},
               {"program", FileJson("/proc/self/exe", "varnel-replay")},
               {"runtime", RuntimeJson(library, judge.Models() / judge.Networks().front())},
               {"models", judge.Models().string()},
               {"networks", NetworksJson(judge)},
               {"thresholds", ThresholdsJson(judge.Thresholds())},
               {"verify_thresholds", ThresholdsJson(judge.VerifyThresholds())},
               {"folder", options.folder.string()},
               {"picture_list", PictureListJson(input.list)},
               {"skipped", SkippedJson(input.list.skipped)},
               {"labels_file", LabelsJson(options, input)}};
  if (options.shard.count > 0)
    head["shard"] = {{"index", options.shard.index}, {"count", options.shard.count}};
  return head;
}

}  // namespace varnel::replay
