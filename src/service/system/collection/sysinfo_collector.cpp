#include "service/system/collection/sysinfo_collector.h"

#include <spdlog/spdlog.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <utility>

#include "comms/log_payload.h"
#include "utils/free_space.h"
#include "utils/idle_priority.h"
#include "utils/log.h"
#include "utils/log_text.h"
#include "utils/safe_exec.h"
#include "utils/thread.h"

namespace varnel::service {
namespace {

namespace fs = std::filesystem;

constexpr const char* kTag = "COLLE";
constexpr size_t kLoggedBytes = 1024;
/// Of commands that wait for silent hosts.
constexpr size_t kSideBySide = 6;
constexpr const char* kSourceCopy = "source";

// What the platform calls its data.
constexpr uint32_t kDiagnostic = 0;
constexpr uint32_t kConfig = 1;
constexpr uint32_t kMpt = 2;
constexpr uint32_t kCoredumps = 3;
constexpr uint32_t kLogData = 6;

bool IsProgram(const std::string& path, const char* name) {
  if (::access(path.c_str(), X_OK) == 0) return true;
  VLOG_ERROR(kTag, "{} program is not exists.", name);
  return false;
}

}  // namespace

SysinfoCollector::SysinfoCollector(const CollectorSetup& setup, CollectionOrder order,
                                   std::function<bool()> stopped)
    : setup_(setup),
      order_(std::move(order)),
      stopped_(std::move(stopped)),
      held_(setup_.held()),
      directory_(WorkingDirectory::Make(setup_.storage, *setup_.clock)),
      ready_(CheckReady()) {
  VLOG_INFO(kTag, "include basic {}, network {}, logs {}, ai_detect {}, coredump {}", order_.basic,
            order_.network, order_.logs, order_.ai_detect, order_.coredump);
  VLOG_INFO(kTag, "ai_detect params is {}", comms::LogJson(order_.ai_detect_params, kLoggedBytes));
  if (!ready_) return;
  VLOG_INFO(kTag, "Create a new sysinfo collector instance: {}, working dir is {}",
            order_.archive_name, directory_->Path().string());
  packing_.emplace(PackingSetupOf());
  runner_.emplace(RunnerSetupOf());
  copies_.emplace(directory_->Path() / kSourceCopy, CopySetupOf(),
                  [this](ItemRecord record) { Tell(std::move(record)); });
}

bool SysinfoCollector::CheckReady() const {
  const bool tar = IsProgram(setup_.tar, "tar");
  const bool openssl = IsProgram(setup_.openssl, "openssl");
  if (!directory_) VLOG_ERROR(kTag, "Create working directory failed");
  return tar && openssl && directory_;
}

CopySetup SysinfoCollector::CopySetupOf() const {
  CopySetup setup;
  setup.held = held_.get();
  setup.stopped = stopped_;
  setup.closed.push_back(directory_->Path());
  setup.has_room = [this](uint64_t bytes) {
    return utils::EnoughFreeSpace(directory_->Path(), setup_.min_free_bytes + bytes);
  };
  return setup;
}

PackingSetup SysinfoCollector::PackingSetupOf() const {
  return {.directory = directory_->Path(),
          .public_key = setup_.public_key,
          .password_file = setup_.password_file,
          .tar = setup_.tar,
          .openssl = setup_.openssl,
          .min_free_bytes = setup_.min_free_bytes,
          .stopped = stopped_};
}

RunnerSetup SysinfoCollector::RunnerSetupOf() const {
  return {.content = directory_->Content(),
          .program_directories = setup_.program_directories,
          .held = held_.get(),
          .stopped = stopped_};
}

utils::Result<fs::path, std::string> SysinfoCollector::Collect() {
  VLOG_INFO(kTag, "Sysinfo collect: start collecting");
  if (!ready_) {
    VLOG_ERROR(kTag, "Collector is not ready.");
    return std::string("the collector is not ready");
  }
  utils::MakeThreadIdle();
  try {
    fs::path archive = CollectOrThrow();
    VLOG_INFO(kTag, "Sysinfo collect: completed");
    return archive;
  } catch (const std::system_error& error) {
    VLOG_ERROR(kTag, "filesystem error: {}", utils::LogText(error.what()));
    return std::string(error.what());
  } catch (const std::exception& error) {
    return std::string(error.what());  // its line is in the log
  }
}

fs::path SysinfoCollector::CollectOrThrow() {
  CollectCategories();
  if (stopped_()) throw std::runtime_error("stopped");
  {
    const utils::MutexLock lock(manifest_mutex_);
    manifest_.WriteInto(directory_->Content());
  }
  const fs::path made = order_.encrypt ? packing_->Encrypted(directory_->Content())
                                       : packing_->Plain(directory_->Content());
  fs::path archive = directory_->Path() / order_.archive_name;
  fs::rename(made, archive);
  return archive;
}

void SysinfoCollector::CollectCategories() {
  struct Part {
    bool wanted;
    Category category;
    void (SysinfoCollector::*collect)();
  };
  const std::array parts{
      Part{order_.basic, Category::kBasic, &SysinfoCollector::CollectBasic},
      Part{order_.logs, Category::kLogs, &SysinfoCollector::CollectLogs},
      Part{order_.network, Category::kNetwork, &SysinfoCollector::CollectNetwork},
      Part{order_.ai_detect, Category::kAiDetect, &SysinfoCollector::CollectAiDetect},
      Part{order_.coredump, Category::kCoredump, &SysinfoCollector::CollectCoredump}};
  for (const Part& part : parts) {
    if (!part.wanted || stopped_()) continue;
    (this->*part.collect)();
    CollectMakers(part.category);
  }
}

void SysinfoCollector::CollectBasic() {
  VLOG_INFO(kTag, "Collect basic information.");
  Run(BasicCommands());
  CollectVariables();
  VLOG_INFO(kTag, "Collect resource information.");
  Run(ResourceCommands());
  VLOG_INFO(kTag, "Collect config information.");
  CollectPlatform(kConfig, "config");
  VLOG_INFO(kTag, "Collect platform diagnostic information.");
  CollectPlatform(kDiagnostic, "platform_diagnostic");
  VLOG_INFO(kTag, "Collect MPT information.");
  CollectPlatform(kMpt, "mpt");
}

void SysinfoCollector::CollectVariables() {
  const auto identity = setup_.identity();
  const std::array<std::pair<const char*, std::string>, 4> variables{
      {{"hwver.txt", identity->hardware_version},
       {"FULLVERSION.txt", identity->full_firmware_version},
       {"serial_number.txt", identity->serial_number},
       {"product_code.txt", identity->product_code}}};
  for (const auto& [output, value] : variables)
    Take({.kind = ItemKind::kVariable, .output = output, .value = value});
}

void SysinfoCollector::CollectLogs() {
  VLOG_INFO(kTag, "Collect log information.");
  spdlog::default_logger()->flush();  // ours are wanted up to here
  CollectPlatform(kLogData, "logs");
  Run(LogCommands());
}

void SysinfoCollector::CollectNetwork() {
  VLOG_INFO(kTag, "Collect network information.");
  Run(NetworkCommands());
  std::vector<MissingHost> missing;
  RunSideBySide(HostCommands(setup_.targets, missing));
  for (const MissingHost& one : missing) {
    Tell({.item = one.item + " (" + one.host + ")",
          .status = "missing",
          .why_left_out = "no host is set: " + one.host});
  }
}

void SysinfoCollector::CollectAiDetect() {
  VLOG_INFO(kTag, "Collect detect result information.");
  fs::create_directory(directory_->Content() / "detect_result");
  PackDirectory(setup_.detection_results, "detect_result/detect_result.tar.gz");
  Take({.kind = ItemKind::kVariable,
        .output = "ai_detect_params.txt",
        .value = comms::Serialize(order_.ai_detect_params)});
}

void SysinfoCollector::CollectCoredump() {
  VLOG_INFO(kTag, "Collect coredump information.");
  CollectPlatform(kCoredumps, "coredump");
}

void SysinfoCollector::CollectMakers(Category category) {
  Run(MakersItems(setup_.makers_items, category));
}

void SysinfoCollector::Run(const std::vector<CollectionItem>& items) {
  for (const CollectionItem& item : items) Take(item);
}

/// Each waits on a thread of its own: all hosts may be silent.
void SysinfoCollector::RunSideBySide(const std::vector<CollectionItem>& items) {
  std::atomic<size_t> next = 0;
  const auto work = [&] {
    for (size_t i = next++; i < items.size(); i = next++) Take(items[i]);
  };
  std::vector<std::jthread> threads;
  for (size_t i = 1; i < std::min(kSideBySide, items.size()); ++i)
    threads.push_back(utils::SpawnGuarded("collect-host", kTag, work));
  work();
}

void SysinfoCollector::Take(const CollectionItem& item) {
  if (stopped_()) return;
  switch (item.kind) {
    case ItemKind::kCommand:
      return Tell(runner_->RunCommand(item));
    case ItemKind::kVariable:
      return Tell(runner_->WriteVariable(item));
    case ItemKind::kDirectory:
      return PackDirectory(item.source, item.output);
    case ItemKind::kFile:
      return CopyFile(item);
  }
}

void SysinfoCollector::PackDirectory(const std::string& source, const std::string& output) {
  const auto copy = copies_->Copy(
      source, {.item = output, .command = "tar zhcvf " + output + " -C " + source + " ."});
  if (!copy) return;
  try {
    packing_->Tar("zhcvf", directory_->Content() / output, *copy, {"."});
  } catch (const std::runtime_error&) {
    std::error_code ignored;  // one item less
    fs::remove(directory_->Content() / output, ignored);
  }
}

void SysinfoCollector::CopyFile(const CollectionItem& item) {
  const auto copy =
      copies_->Copy(item.source, {.item = item.output, .command = "cp " + item.source});
  if (copy) fs::rename(*copy, directory_->Content() / item.output);
}

void SysinfoCollector::CollectPlatform(uint32_t type, const std::string& directory) {
  fs::create_directory(directory_->Content() / directory);
  const auto open = setup_.desk->Open([&](const std::string& source, const std::string& name) {
    const std::string item = directory + "/" + name;
    return copies_->Copy(source, {.item = item, .command = item + " from " + source});
  });
  (void)setup_.platform_data(type, directory_->Content() / directory);
}

void SysinfoCollector::Tell(ItemRecord record) {
  const utils::MutexLock lock(manifest_mutex_);
  manifest_.Add(std::move(record));
}

}  // namespace varnel::service
