#pragma once

#include <cstdint>
#include <functional>
#include <nlohmann/json_fwd.hpp>
#include <string>

#include "comms/status.h"

namespace varnel::service {

/// Which step of a request a notification is about.
enum class CollectionStep { kInner, kUpload, kCopy };

/// What clients are told of a collection. Thread-safe; what cannot be sent is logged.
class CollectionNotifier {
 public:
  using Send = std::function<comms::CommsStatus(const std::string& method, nlohmann::json params)>;

  explicit CollectionNotifier(Send send) : send_(std::move(send)) {}

  void Completed(CollectionStep step, const std::string& filepath, uint64_t filesize) const;
  void Failed(CollectionStep step, const std::string& reason) const;
  /// The cloud is not in reach.
  void Disconnected(CollectionStep step, const std::string& reason) const;

 private:
  void Tell(CollectionStep step, nlohmann::json params) const;

  const Send send_;
};

}  // namespace varnel::service
