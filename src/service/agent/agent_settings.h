#pragma once

#include <filesystem>
#include <functional>
#include <map>
#include <nlohmann/json_fwd.hpp>
#include <string>

#include "utils/mutex.h"

namespace varnel::service {

/// Who uses the device through the cloud; an empty id: nobody.
struct CloudUser {
  std::string id{};
  std::string name{};
  bool operator==(const CloudUser&) const = default;
};

/// What the owner and the cloud have settled about this device. No secret is in it.
struct AgentConfig {
  std::string region{};  ///< empty: not chosen
  std::string link_mode = "wan";
  std::string name{};  ///< empty: the serial number
  CloudUser user{};
  /// By region: who is being logged out there, but the cloud has not been told.
  std::map<std::string, CloudUser> logouts{};
  bool reset = false;  ///< a factory reset is to be finished
  bool operator==(const AgentConfig&) const = default;
};

/// The configuration, and its file, which every change replaces. Thread-safe.
class AgentSettings {
 public:
  explicit AgentSettings(std::filesystem::path file) : file_(std::move(file)) {}
  AgentSettings(const AgentSettings&) = delete;
  AgentSettings& operator=(const AgentSettings&) = delete;

  /// Reads the file, unless that has been done. Each value that is missing or broken keeps its
  /// default, which is logged.
  void Load();
  [[nodiscard]] AgentConfig Get() const;
  /// What cannot be written is logged, and goes out with the next change or SaveAgain(). A file
  /// that could not be read is put aside as "*.bad".
  void Change(const std::function<void(AgentConfig& config)>& change);
  /// Writes what could not be written.
  void SaveAgain();

 private:
  void LoadOnce() REQUIRES(saving_);
  void PutAside() REQUIRES(saving_);
  [[nodiscard]] std::filesystem::path BadFile() const { return file_.string() + ".bad"; }
  [[nodiscard]] bool Save(const AgentConfig& config) const;

  const std::filesystem::path file_;
  utils::Mutex saving_;  // held while the disk is used, before mutex_
  bool loaded_ GUARDED_BY(saving_) = false;
  bool unsaved_ GUARDED_BY(saving_) = false;
  mutable utils::Mutex mutex_;
  AgentConfig config_ GUARDED_BY(mutex_);
};

}  // namespace varnel::service
