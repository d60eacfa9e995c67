#include "service/camera/monitor/monitor_domain.h"

namespace varnel::service {

const char* NameOf(MonitorDomain domain) {
  return domain == MonitorDomain::kWan ? "wan" : "lan";
}

std::optional<MonitorDomain> ParseMonitorDomain(std::string_view text) {
  for (const MonitorDomain domain : {MonitorDomain::kLan, MonitorDomain::kWan})
    if (text == NameOf(domain)) return domain;
  return std::nullopt;
}

std::string MonitorDomains::Text() const {
  if (lan && wan) return "lan wan";
  return Any() ? NameOf(First()) : "";
}

}  // namespace varnel::service
