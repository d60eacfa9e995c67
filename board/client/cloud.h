#pragma once

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "virtual_board/client/mqtt_link.h"
#include "virtual_board/cloud/cloud_files.h"

namespace varnel::board {

/// The cloud of a program's boards, in a directory of its own; boards join with BootOptions::cloud.
/// It ends with this object, and also when the program is killed; the thread that starts it must
/// live as long. Methods may be called from several threads; what is refused or fails is a
/// std::runtime_error.
class Cloud {
 public:
  using json = nlohmann::json;

  /// Returns when boards may join. An empty directory: a temporary one that goes with the object.
  explicit Cloud(const std::filesystem::path& directory = {});
  /// A cloud that somebody else started and will stop.
  static std::unique_ptr<Cloud> Attach(const std::filesystem::path& directory);
  Cloud(const Cloud&) = delete;
  Cloud& operator=(const Cloud&) = delete;
  ~Cloud();

  [[nodiscard]] const CloudFiles& Files() const { return files_; }
  /// The directory, as BootOptions::cloud wants it.
  [[nodiscard]] const std::filesystem::path& Directory() const { return files_.Root(); }

  /// Replaces all faults, in the language of cloud/virtual_cloud/faults.py; empty: none. Returns
  /// when they are in force; a broker that was killed takes a little longer to come back.
  void SetFaults(const std::string& text) const;
  /// The lines that are left.
  [[nodiscard]] std::string Faults() const;

  /// Everything that the cloud saw so far. An entry has an "event": "request" and others, see
  /// docs/internals/virtual-cloud.md.
  [[nodiscard]] std::vector<json> Journal() const;
  /// The requests to this path so far; of one device or of all.
  [[nodiscard]] std::vector<json> Requests(const std::string& path,
                                           const std::string& device = "") const;
  /// Waits for an entry that fits, old or new.
  [[nodiscard]] std::optional<json> AwaitEntry(
      const std::function<bool(const json&)>& fits,
      std::chrono::milliseconds limit = std::chrono::seconds(20)) const;

  /// A command, see "varnel-board --help"; the whole answer.
  json Tell(const std::vector<std::string>& words) const;
  void Bind(const std::string& device, const std::string& user_id, const std::string& user) const;
  /// What the cloud knows of a device: "name", "online", "user", "pairing_codes", "print_tasks",
  /// "authorized", "certificates" (how many were issued), "region_lock".
  [[nodiscard]] json Device(const std::string& device) const;
  void KillBroker() const { Tell({"kill-broker"}); }
  void StartBroker() const { Tell({"start-broker"}); }
  /// Of the devices' certificates that are issued from now on.
  void SetCertificateLife(std::chrono::seconds life) const;

  /// Makes these bytes the newest firmware, with the usual description but for these members; null
  /// drops one. The answer's "url", "note" and "description".
  json Publish(const std::filesystem::path& firmware,
               const json& description = json::object()) const;
  void Unpublish() const { Tell({"unpublish"}); }
  /// An object of the store as it lies on the host, whole if it is there.
  [[nodiscard]] std::filesystem::path ObjectFile(const std::string& name) const {
    return files_.Objects() / name;
  }
  /// Of addresses that are signed from now on; 0: they have expired already.
  void SetUrlLife(std::chrono::seconds life) const;
  /// Every secret that stood in an address or was a token so far.
  [[nodiscard]] std::vector<std::string> Secrets() const;

  /// A client of the broker that may do everything.
  [[nodiscard]] MqttLink Link(const std::string& client_id) const;

 private:
  struct Attached {};
  Cloud(Attached, const std::filesystem::path& directory);
  void Launch();
  void End() const;

  bool temporary_ = false;
  CloudFiles files_;
  pid_t process_ = 0;
};

}  // namespace varnel::board
