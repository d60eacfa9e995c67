#pragma once

#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "service/cloud/http/ranged_download.h"
#include "service/system/upgrade/firmware_check.h"
#include "service/system/upgrade/firmware_description.h"
#include "service/system/upgrade/firmware_store.h"

namespace varnel::service {

/// What the cloud offers, and what of it is here.
struct FirmwareOffer {
  bool good = false;  ///< the cloud has answered; without that the rest says nothing
  bool has_new = false;
  bool has_downloaded = false;
  FirmwareDescription description{};
  std::string url{};  ///< of the firmware; may be signed, and is a secret then
};

/// What a look at the cloud works with; what it refers to outlives it.
struct CatalogueSetup {
  RangedDownloader* http = nullptr;
  const FirmwareStore* store = nullptr;
  FirmwareCheck* check = nullptr;
  std::function<bool()> is_connected{};  ///< to the cloud
  /// The cloud's record of the firmware; nothing when it does not answer.
  std::function<std::optional<nlohmann::json>()> ask_record{};
  std::function<std::string()> local_fullversion{};
  std::function<bool(std::chrono::milliseconds time)> pause{};  ///< false: it is to end
  const utils::Clock* clock = nullptr;
};

/// Looks up what firmware there is. One look at a time.
class FirmwareCatalogue {
 public:
  explicit FirmwareCatalogue(CatalogueSetup setup) : setup_(std::move(setup)) {}

  /// Talks to the cloud; reads what is there of what it offers.
  [[nodiscard]] FirmwareOffer Look() const;
  /// Looks again whether the offered firmware is there.
  void FindDownloaded(FirmwareOffer& offer) const;

 private:
  struct Addresses {
    std::string description;
    std::string firmware;
  };

  [[nodiscard]] std::optional<Addresses> AskAddresses() const;
  [[nodiscard]] std::optional<FirmwareDescription> FetchDescription(const std::string& url) const;
  [[nodiscard]] bool Fetch(const std::string& url, std::string& text) const;
  void Compare(FirmwareOffer& offer) const;

  const CatalogueSetup setup_;
};

}  // namespace varnel::service
