#include "service/system/upgrade/upgrade_requests.h"

#include "comms/json_rpc_message.h"
#include "utils/log.h"

namespace varnel::service {
namespace {

using nlohmann::json;

constexpr const char* kTag = "UPGM";

json InvalidParam(const char* message) {
  return comms::MakeError(comms::RpcError::kInvalidParams, message);
}

bool IsObject(const json& params) {
  return params.is_null() || params.is_object();
}

}  // namespace

std::optional<json> ErrorInDownload(const json& params) {
  const bool has_name = IsObject(params) && params.contains("fullversion");
  if (has_name && params["fullversion"].is_string()) return std::nullopt;
  if (IsObject(params) && !has_name) return InvalidParam("Missing required param: fullversion");
  VLOG_ERROR(kTag, "method: system.upgrade_download_firmware, invalid parameter");
  return InvalidParam("Invalid params");
}

std::optional<json> ErrorInUpgrade(const json& params) {
  const auto invalid = [] {
    VLOG_ERROR(kTag, "method: system.upgrade, invalid parameter");
    return InvalidParam("Invalid params");
  };
  if (!IsObject(params)) return invalid();
  if (!params.contains("type")) return InvalidParam("Missing required param: type");
  if (!params["type"].is_string()) return invalid();
  if (params["type"] == "remote") return std::nullopt;
  if (params["type"] != "local")
    return InvalidParam("Invalid 'type' parameter, must be 'local' or 'remote'");
  if (!params.contains("filepath")) return InvalidParam("Missing required param: filepath");
  return params["filepath"].is_string() ? std::nullopt : std::optional(invalid());
}

json AnswerOf(const FirmwareOffer& offer, bool is_downloading) {
  return {{"state", offer.good ? "success" : "failed"},
          {"has_new", offer.has_new},
          {"version", offer.description.version},
          {"fullversion", offer.description.fullversion},
          {"size", offer.description.size},
          {"url", offer.url},
          {"has_downloaded", offer.has_downloaded},
          {"is_downloading", is_downloading},
          {"release_notes", offer.good ? offer.description.release_notes : json(std::string())}};
}

}  // namespace varnel::service
