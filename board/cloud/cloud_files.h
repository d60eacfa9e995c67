#pragma once

#include <filesystem>
#include <string>

namespace varnel::board {

/// Where the parts of one cloud lie in its directory.
class CloudFiles {
 public:
  explicit CloudFiles(const std::filesystem::path& directory)
      : root_(std::filesystem::absolute(directory).lexically_normal()) {}

  [[nodiscard]] const std::filesystem::path& Root() const { return root_; }
  /// What a board has to know to join; the cloud writes it when it starts.
  [[nodiscard]] std::filesystem::path Description() const { return root_ / "cloud.json"; }
  /// Takes commands, as virtual_cloud/control.py tells.
  [[nodiscard]] std::filesystem::path Control() const { return root_ / "control"; }
  /// Where boards hand in the sockets on which they listen for the cloud.
  [[nodiscard]] std::filesystem::path Wire() const { return root_ / "wire"; }
  /// The broker's socket for everybody but devices.
  [[nodiscard]] std::filesystem::path BrokerSocket() const { return root_ / "broker/clients.sock"; }
  /// One JSON object a line.
  [[nodiscard]] std::filesystem::path Journal() const { return root_ / "journal.jsonl"; }
  /// In the language of virtual_cloud/faults.py.
  [[nodiscard]] std::filesystem::path Faults() const { return root_ / "faults"; }
  /// What the store holds.
  [[nodiscard]] std::filesystem::path Objects() const { return root_ / "objects"; }
  /// One a line.
  [[nodiscard]] std::filesystem::path Secrets() const { return root_ / "secrets"; }
  /// The public key for signatures of firmware.
  [[nodiscard]] std::filesystem::path PackageKey() const { return root_ / "package.pem"; }
  /// A registered device's public key; its owner writes it.
  [[nodiscard]] std::filesystem::path DeviceKey(const std::string& serial_number) const {
    return root_ / "devices" / (serial_number + ".pem");
  }

 private:
  std::filesystem::path root_;
};

}  // namespace varnel::board
