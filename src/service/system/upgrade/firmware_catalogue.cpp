#include "service/system/upgrade/firmware_catalogue.h"

#include <exception>
#include <utility>

#include "service/cloud/http/http_request.h"
#include "service/system/upgrade/upgrade_record.h"
#include "utils/atomic_file.h"
#include "utils/log.h"
#include "utils/log_text.h"

namespace varnel::service {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;

constexpr const char* kTag = "UPGM";
constexpr double kStallS = 10;
constexpr int kAttempts = 3;
constexpr auto kLimit = 60s;  // of all attempts: others wait for what they find
constexpr size_t kMaxUptimeBytes = 128;

/// Empty for what is no address of the web.
std::string UrlIn(const json& record, const char* name) {
  const auto found = record.find(name);
  if (found == record.end() || !found->is_string()) return {};
  const auto& url = found->get_ref<const std::string&>();
  return url.starts_with("http://") || url.starts_with("https://") ? url : std::string();
}

std::string Uptime() {
  const std::string text = utils::ReadSmallFile("/proc/uptime", kMaxUptimeBytes).value_or("");
  return text.substr(0, text.find(' '));
}

/// Takes a small file, up to a time: one that drips would never stall.
class TextSink : public RangeSink {
 public:
  TextSink(std::string& text, const utils::Clock& clock, utils::Clock::TimePoint deadline)
      : text_(text), clock_(clock), deadline_(deadline) {}
  bool Begin(const RangeStart&) override { return true; }
  bool Take(const char* data, size_t size) override {
    text_.append(data, size);
    return true;
  }
  bool GoOn(int64_t) override { return clock_.Now() < deadline_; }

 private:
  std::string& text_;
  const utils::Clock& clock_;
  const utils::Clock::TimePoint deadline_;
};

}  // namespace

std::optional<FirmwareCatalogue::Addresses> FirmwareCatalogue::AskAddresses() const {
  if (!setup_.is_connected()) {
    VLOG_WARN(kTag, "get firmware desc URL: cloud not connected.");
    return std::nullopt;
  }
  try {
    const auto record = setup_.ask_record();
    if (!record || !record->is_object()) {
      VLOG_ERROR(kTag, "get firmware desc URL: invalid response.");
      return std::nullopt;
    }
    Addresses addresses{UrlIn(*record, "note"), UrlIn(*record, "url")};
    if (addresses.description.empty() || addresses.firmware.empty()) {
      VLOG_ERROR(kTag, "get firmware desc URL: no valid firmware URL or description URL.");
      return std::nullopt;
    }
    VLOG_INFO(kTag, "get firmware desc URL: {}, firmware URL: {}", UrlTag(addresses.description),
              UrlTag(addresses.firmware));
    return addresses;
  } catch (const std::exception& error) {
    VLOG_ERROR(kTag, "get firmware desc URL: exception {}", utils::LogText(error.what()));
    return std::nullopt;
  }
}

bool FirmwareCatalogue::Fetch(const std::string& url, std::string& text) const {
  const auto deadline = setup_.clock->Now() + kLimit;
  for (int attempt = 1;; ++attempt) {
    text.clear();
    TextSink sink(text, *setup_.clock, deadline);
    const RangeResult result =
        setup_.http->Download({url, 0, {}, FirmwareDescription::kMaxBytes, kStallS}, sink);
    if (result.code == CURLE_OK) return true;
    const bool may_succeed =
        attempt < kAttempts && result.IsNetwork() && setup_.clock->Now() < deadline;
    if (!may_succeed || !setup_.pause(attempt == 1 ? 1s : 2s)) return false;
  }
}

std::optional<FirmwareDescription> FirmwareCatalogue::FetchDescription(
    const std::string& url) const {
  std::string text;
  if (!Fetch(url, text)) {
    VLOG_ERROR(kTag, "Download firmware description file failed!");
    return std::nullopt;
  }
  auto description = ReadFirmwareDescription(text);
  if (!description) return std::nullopt;
  if (const auto error = setup_.store->KeepDescription(text))
    VLOG_WARN(kTag, "The firmware description is not kept: {}", error.message());
  return description;
}

FirmwareOffer FirmwareCatalogue::Look() const {
  FirmwareOffer offer;
  auto addresses = AskAddresses();
  if (!addresses) {
    VLOG_ERROR(kTag, "Firmware description: get URL failed.");
  } else if (auto description = FetchDescription(addresses->description)) {
    offer.good = true;
    offer.description = *std::move(description);
    offer.url = std::move(addresses->firmware);
    Compare(offer);
    return offer;
  }
  VLOG_ERROR(kTag, "Sync firmware description failed!");
  return offer;
}

void FirmwareCatalogue::Compare(FirmwareOffer& offer) const {
  const std::string& remote = offer.description.fullversion;
  const std::string local = setup_.local_fullversion();
  VLOG_INFO(kTag, "Check new version: remote fullversion is {}, local fullversion is {}", remote,
            utils::LogText(local));
  offer.has_new = !IsThisVersion(local, remote);
  if (offer.has_new) {
    VLOG_INFO(kTag, "There is a new version of the firmware.");
  } else {
    VLOG_INFO(kTag, "The local and remote version numbers are the same.");
  }
  VLOG_INFO(kTag, "System uptime is {}", Uptime());
  FindDownloaded(offer);
}

void FirmwareCatalogue::FindDownloaded(FirmwareOffer& offer) const {
  const auto file = setup_.store->Firmware(offer.description.fullversion);
  std::error_code error;
  offer.has_downloaded = std::filesystem::exists(std::filesystem::symlink_status(file, error)) &&
                         setup_.check->CheckFirmwareFile(file, offer.description);
}

}  // namespace varnel::service
