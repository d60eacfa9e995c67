#include "service/system/collection/collection_item.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <string_view>

#include "utils/log.h"
#include "utils/log_text.h"

namespace varnel::service {
namespace {

using nlohmann::json;

constexpr const char* kTag = "COLLE";
constexpr size_t kStoreHosts = 3;

struct CommandRow {
  std::string_view command;
  const char* output;
};

constexpr std::array kBasic{
    CommandRow{"uptime -p", "uptime.txt"},
    CommandRow{"cat /proc/uptime", "proc_uptime.txt"},
    CommandRow{"date -R", "date.txt"},
    CommandRow{"printenv", "printenv.txt"},
    CommandRow{"cat /proc/cmdline", "proc_cmdline.txt"},
};

constexpr std::array kResource{
    CommandRow{"cat /proc/meminfo", "meminfo.txt"},
    CommandRow{"ps aux", "ps.txt"},
    CommandRow{"lsof -P", "lsof.txt"},
    CommandRow{"mpstat -P ALL 1 2", "mpstat.txt"},
    CommandRow{"iostat -x", "iostat.txt"},
    CommandRow{"cat /proc/interrupts", "proc_interrupts.txt"},
    CommandRow{"mount", "mount.txt"},
    CommandRow{"df -h", "df.txt"},
    CommandRow{"lsmod", "lsmod.txt"},
    CommandRow{"lsusb", "lsusb.txt"},
    CommandRow{"lsusb -t", "lsusb_t.txt"},
    CommandRow{"lsusb -v", "lsusb_v.txt"},
};

constexpr std::array kLogs{
    CommandRow{"dmesg", "dmesg.txt"},
};

constexpr std::array kNetwork{
    CommandRow{"ifconfig -a", "ifconfig.txt"},
    CommandRow{"wpa_cli status", "wpa_cli_status.txt"},
    CommandRow{"iw dev wlan0 link", "iw_dev_wlan0_link.txt"},
    CommandRow{"iw dev wlan0 info", "iw_dev_wlan0_info.txt"},
    CommandRow{"/usr/bin/wifi-compatible.sh get", "wifi-compatible.txt"},
    CommandRow{"route -n", "route.txt"},
    CommandRow{"netstat -an", "netstat.txt"},
    CommandRow{"cat /proc/net/dev", "proc_net_dev.txt"},
    CommandRow{"cat /etc/resolv.conf", "etc_resolv.conf.txt"},
};

std::vector<std::string> Words(std::string_view command) {
  std::vector<std::string> words;
  while (!command.empty()) {
    const size_t end = std::min(command.find(' '), command.size());
    words.emplace_back(command.substr(0, end));
    command.remove_prefix(std::min(end + 1, command.size()));
  }
  return words;
}

std::vector<CollectionItem> Items(std::span<const CommandRow> rows) {
  std::vector<CollectionItem> items;
  for (const CommandRow& row : rows)
    items.push_back({.output = row.output, .command = Words(row.command)});
  return items;
}

CollectionItem Ping(const std::string& address, const std::string& name) {
  return {.output = "ping_" + name + ".txt", .command = {"ping", "-c", "4", address}};
}

CollectionItem LookUp(const std::string& host) {
  return {.output = "nslookup_" + host + ".txt", .command = {"nslookup", host}};
}

/// The text of a member that must be a text and have one; `what` is its name for people.
std::optional<std::string> TextOf(const json& item, const char* member, const char* what) {
  const auto value = item.find(member);
  if (value == item.end() || (value->is_string() && value->get_ref<const std::string&>().empty())) {
    VLOG_ERROR(kTag, "Parameter {} has no value: {}.", what,
               utils::LogText(item.dump(-1, ' ', false, json::error_handler_t::replace)));
    return std::nullopt;
  }
  if (!value->is_string() || value->get_ref<const std::string&>().find('\0') != std::string::npos) {
    VLOG_ERROR(kTag, "Parameter {} is invalid. It might be of an incorrect type.", what);
    return std::nullopt;
  }
  return value->get<std::string>();
}

std::optional<std::vector<std::string>> CommandOf(const json& item) {
  const auto command = item.find("cmd");
  if (command == item.end() || (command->is_array() && command->empty())) {
    VLOG_ERROR(kTag, "Parameter cmd has no value: {}.",
               utils::LogText(item.dump(-1, ' ', false, json::error_handler_t::replace)));
    return std::nullopt;
  }
  const auto is_word = [](const json& word) {
    return word.is_string() && word.get_ref<const std::string&>().find('\0') == std::string::npos;
  };
  if (!command->is_array() || !std::all_of(command->begin(), command->end(), is_word)) {
    VLOG_ERROR(kTag, "Parameter cmd is invalid. It might be of an incorrect type.");
    return std::nullopt;
  }
  return command->get<std::vector<std::string>>();
}

/// A name that means itself to every shell and every manifest.
bool IsPlainName(const std::string& name) {
  constexpr std::string_view kCharacters =
      "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789._-";
  return name.size() <= 100 && name.front() != '.' && name.front() != '-' &&
         name.find_first_not_of(kCharacters) == std::string::npos && name != "manifest.json";
}

std::optional<CollectionItem> ItemOf(const json& item) {
  auto output = TextOf(item, "output", "output");
  if (!output) return std::nullopt;
  if (!IsPlainName(*output)) {
    VLOG_ERROR(kTag, "Parameter output is invalid. It might be of an incorrect type.");
    return std::nullopt;
  }
  const std::string type = item.value("type", json()).is_string() ? item["type"] : json("");
  CollectionItem made{.output = *std::move(output)};
  if (type == "cmd") {
    auto command = CommandOf(item);
    if (!command) return std::nullopt;
    made.command = *std::move(command);
    return made;
  }
  if (type == "dir" || type == "file") {
    made.kind = type == "dir" ? ItemKind::kDirectory : ItemKind::kFile;
    const auto source = TextOf(item, "source", type == "dir" ? "source dir" : "source filepath");
    made.source = source.value_or("");
    return source ? std::optional(made) : std::nullopt;
  }
  if (type == "variable") {
    made.kind = ItemKind::kVariable;
    const auto value = TextOf(item, "value", "variable value");
    made.value = value.value_or("");
    return value ? std::optional(made) : std::nullopt;
  }
  VLOG_ERROR(kTag, "Unsupported type: {}", utils::LogText(type));
  return std::nullopt;
}

}  // namespace

std::vector<CollectionItem> BasicCommands() {
  return Items(kBasic);
}

std::vector<CollectionItem> ResourceCommands() {
  return Items(kResource);
}

std::vector<CollectionItem> LogCommands() {
  return Items(kLogs);
}

std::vector<CollectionItem> NetworkCommands() {
  return Items(kNetwork);
}

std::vector<CollectionItem> HostCommands(const NetworkTargets& targets,
                                         std::vector<MissingHost>& missing) {
  std::vector<CollectionItem> items;
  if (targets.dns_server.empty()) {
    missing.push_back({"ping", "DNS server"});
  } else {
    std::string name = targets.dns_server;
    std::replace(name.begin(), name.end(), '.', '_');
    items.push_back(Ping(targets.dns_server, name));
  }
  const auto add = [&](const std::string& host, const std::string& what) {
    if (host.empty()) {
      missing.push_back({"ping", what});
      missing.push_back({"nslookup", what});
    } else {
      items.push_back(Ping(host, host));
      items.push_back(LookUp(host));
    }
  };
  add(targets.account_host, "account server");
  add(targets.api_host, "API of the second region");
  for (size_t i = 0; i < std::max(kStoreHosts, targets.store_hosts.size()); ++i) {
    add(i < targets.store_hosts.size() ? targets.store_hosts[i] : "",
        "object store " + std::to_string(i + 1));
  }
  return items;
}

std::vector<CollectionItem> MakersItems(const json& items, Category category) {
  std::vector<CollectionItem> made;
  if (!items.is_array()) return made;
  for (const json& item : items) {
    if (!item.is_object() ||
        item.value("category", json()) != kCategoryNames.at(static_cast<size_t>(category)))
      continue;
    if (auto one = ItemOf(item)) made.push_back(*std::move(one));
  }
  return made;
}

}  // namespace varnel::service
