#include "service/camera/monitor/monitor.h"

#include <fmt/format.h>

#include <stdexcept>
#include <utility>

#include "service/camera/monitor/test_picture.h"
#include "utils/log.h"
#include "utils/private_directory.h"
#include "utils/temporary_name.h"

namespace varnel::service {
namespace {

constexpr const char* kTag = "MON";
constexpr const char* kName = "monitor";

std::optional<MonitorDomain> DomainOf(const std::string& text) {
  const auto domain = ParseMonitorDomain(text);
  if (!domain) VLOG_ERROR(kTag, "Domain is not 'wan' or 'lan'.");
  return domain;
}

MonitorAccess AccessWith(const utils::OpenSSLCrypto& crypto, std::string url) {
  return {std::move(url), std::string(crypto.Password()), crypto.Iterations(),
          fmt::format("{:02x}", fmt::join(crypto.Salt(), ""))};
}

}  // namespace

Monitor::Monitor(MonitorSetup setup)
    : ffmpeg_(std::move(setup.ffmpeg)),
      uploader_(std::move(setup.uploader)),
      notify_(std::move(setup.notify)),
      encryption_(kName, setup.encryption),
      switches_(*setup.clock),
      files_(std::move(setup.paths)),
      upload_(
          *uploader_,
          [serial = std::move(setup.serial_number)] { return serial() + "_monitor.enc"; },
          *setup.clock),
      task_({*setup.camera, switches_, files_, upload_, notify_, *setup.clock}) {
  utils::RemoveLeftovers(files_.Paths().snapshot.parent_path());
  files_.Clear();
}

std::optional<MonitorAccess> Monitor::Start(const std::string& domain,
                                            std::chrono::milliseconds interval) {
  const MonitorDomains before = Domains();
  VLOG_INFO(kTag, "Current monitor state: lan is {}, wan is {}", before.lan, before.wan);
  const auto known = DomainOf(domain);
  if (!known) return std::nullopt;
  // From here on a stop is one of this start.
  const MonitorSwitches::Attempt attempt = switches_.Begin(*known);
  // A cloud that does not answer holds up one worker, and not all of them.
  const bool is_wan = known == MonitorDomain::kWan;
  const auto permit = is_wan ? wan_starts_.TryTake() : nullptr;
  if (is_wan && !permit) {
    VLOG_WARN(kTag, "Another start of monitoring over the cloud is still on its way");
    return std::nullopt;
  }
  auto access = StartDomain(attempt, interval);
  if (!access) return std::nullopt;
  const MonitorDomains now = Domains();
  VLOG_INFO(kTag, "New monitor state: lan is {}, wan is {}", now.lan, now.wan);
  return access;
}

std::optional<MonitorAccess> Monitor::StartDomain(const MonitorSwitches::Attempt& attempt,
                                                  std::chrono::milliseconds interval) {
  if (attempt.domain == MonitorDomain::kWan && !uploader_->HasAccess()) {
    VLOG_ERROR(kTag, "Get access failed.");
    return std::nullopt;
  }
  const Crypto crypto = attempt.crypto ? attempt.crypto : encryption_.Make();
  if (!crypto) {
    VLOG_ERROR(kTag, "Invalid encryptor.");
    return std::nullopt;
  }
  auto url = Rehearse(attempt, crypto);
  if (!url) return std::nullopt;
  const Crypto used = switches_.TurnOn(attempt, crypto, interval);
  if (!used) {
    VLOG_WARN(kTag, "Monitoring was stopped before it began");
    return std::nullopt;
  }
  return AccessWith(*used, std::move(*url));
}

/// Does with a picture of its own what rounds do; what it leaves in the cloud is replaced by them.
std::optional<std::string> Monitor::Rehearse(const MonitorSwitches::Attempt& attempt,
                                             const Crypto& crypto) {
  constexpr const char* kPicture = "test.jpg";
  std::error_code error;
  const auto directory =
      utils::PrivateDirectory::Create(files_.Paths().snapshot.parent_path(), error);
  if (!directory) {
    VLOG_ERROR(kTag, "Execute fatal error: {}", error.message());
    return std::nullopt;
  }
  if (!MakeTestPicture(ffmpeg_, *directory, kPicture)) return std::nullopt;
  const auto encrypted = directory->PathOf("test.enc");
  try {
    crypto->EncryptFile(directory->PathOf(kPicture), encrypted);
  } catch (const std::runtime_error& problem) {
    VLOG_ERROR(kTag, "Encrypt file error: {}", problem.what());
    return std::nullopt;
  }
  if (attempt.domain == MonitorDomain::kLan) return std::string();
  return upload_.SendFirst(encrypted, [&] { return switches_.WasStopped(attempt); });
}

void Monitor::ForEachSecret(const std::function<void(std::string_view secret)>& visit) const {
  if (const Crypto crypto = switches_.LastCrypto()) visit(crypto->Password());
  encryption_.ForEachSecret(visit);
}

bool Monitor::Stop(const std::string& domain) {
  const auto known = DomainOf(domain);
  if (!known) return false;
  switches_.TurnOff(*known);
  // The other domain may not have a round for an hour.
  if (known == MonitorDomain::kLan) files_.Withdraw();
  VLOG_INFO(kTag, "Stop monitor.");
  return true;
}

}  // namespace varnel::service
