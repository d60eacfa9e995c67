#include "service/system/collection/collection_request.h"

#include <stdexcept>
#include <utility>

#include "comms/json_rpc_envelope.h"
#include "comms/json_rpc_message.h"
#include "utils/local_time.h"
#include "utils/log.h"
#include "utils/log_text.h"

namespace varnel::service {
namespace {

using comms::MakeError;
using comms::RpcError;
using nlohmann::json;

constexpr const char* kTag = "COLLM";

json InvalidParam(const char* message) {
  return MakeError(RpcError::kInvalidParams, message);
}

/// As deep as a request may be: what is deeper takes the stack of whoever copies it.
bool IsFlatEnough(int depth, json::parse_event_t, json&) {
  if (depth > comms::kMaxNesting) throw std::length_error("it is nested too deeply");
  return true;
}

/// An object; anything else when there is none.
json ReadInclude(const json& include) {
  if (!include.is_string()) return include;
  try {
    return json::parse(include.get_ref<const std::string&>(), IsFlatEnough);
  } catch (const std::exception& error) {
    VLOG_ERROR(kTag, "Failed to parse include field: {}", utils::LogText(error.what()));
    return {};
  }
}

bool* SwitchOf(CollectionOrder& order, const std::string& category) {
  const std::array<std::pair<const char*, bool*>, 5> switches{{{"basic", &order.basic},
                                                               {"network", &order.network},
                                                               {"logs", &order.logs},
                                                               {"ai_detect", &order.ai_detect},
                                                               {"coredump", &order.coredump}}};
  for (const auto& [name, value] : switches)
    if (category == name) return value;
  return nullptr;
}

void ReadCategories(const json& include, CollectionOrder& order) {
  for (const auto& [category, options] : include.items()) {
    if (!options.is_object()) {
      VLOG_WARN(kTag, "include '{}': value is not an object, skipping", utils::LogText(category));
      continue;
    }
    bool* wanted = SwitchOf(order, category);
    if (wanted == nullptr) {
      VLOG_WARN(kTag, "include '{}': unknown category, skipping", utils::LogText(category));
      continue;
    }
    *wanted = true;
    if (category == "ai_detect") order.ai_detect_params = options;
  }
}

bool ReadSwitch(const json& params, const char* name, bool fallback) {
  const json& value = params[name];
  if (value.is_boolean()) return value.get<bool>();
  VLOG_WARN(kTag, "Parameter {} may be in wrong format, use default {}", name, fallback);
  return fallback;
}

std::string ReadFilepath(const json& params) {
  const auto path = params.find("filepath");
  if (path == params.end() || !path->is_string()) {
    VLOG_INFO(kTag, "Parameter filepath not found or in wrong format, skip copy to file");
    return "";
  }
  if (path->get_ref<const std::string&>().empty())
    VLOG_INFO(kTag, "Parameter filepath is empty, skip copy to file");
  return path->get<std::string>();
}

}  // namespace

utils::Result<CollectionRequest, json> ReadCollectionRequest(const json& params) {
  if (!params.is_null() && !params.is_object()) {
    VLOG_ERROR(kTag, "method: system.collect_sysinfo, invalid parameter");
    return InvalidParam("Invalid params");
  }
  if (!params.contains("encrypt") || !params.contains("upload") || !params.contains("include")) {
    VLOG_ERROR(kTag, "Miss encrypt or upload or include parameter");
    return InvalidParam("Missing required params: encrypt, upload, include");
  }
  const json include = ReadInclude(params["include"]);
  if (!include.is_object()) {
    VLOG_ERROR(kTag, "Parameter include is not an object");
    return InvalidParam("Parameter 'include' must be an object");
  }
  CollectionRequest request;
  request.order.encrypt = ReadSwitch(params, "encrypt", true);
  request.upload = ReadSwitch(params, "upload", false);
  ReadCategories(include, request.order);
  request.filepath = ReadFilepath(params);
  return request;
}

std::string DeliveredName(int64_t seconds, bool encrypted) {
  return "LOGS_" + utils::LocalTimeDigits(seconds).value_or("0") +
         (encrypted ? "_sysinfo_enc" : "") + ".tar.gz";
}

}  // namespace varnel::service
