#pragma once

#include <array>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace varnel::service {

/// What a collection can be asked to include.
enum class Category { kBasic, kNetwork, kLogs, kAiDetect, kCoredump };
inline constexpr std::array<const char*, 5> kCategoryNames{"basic", "network", "logs", "ai_detect",
                                                           "coredump"};

enum class ItemKind {
  kCommand,    ///< what a program prints
  kDirectory,  ///< packed
  kFile,
  kVariable,
};

/// One file of the archive, and where it comes from.
struct CollectionItem {
  ItemKind kind = ItemKind::kCommand;
  std::string output;                  ///< its name in the archive
  std::vector<std::string> command{};  ///< the program's name or path first
  std::string source{};                ///< directory or file
  std::string value{};                 ///< of a variable
};

/// Hosts that the network is tried with; an empty one is not set.
struct NetworkTargets {
  std::string dns_server{};
  std::string account_host{};
  std::string api_host{};  ///< of the second region
  std::vector<std::string> store_hosts{};
};

/// A command whose host nobody has set.
struct MissingHost {
  std::string item;
  std::string host;
};

[[nodiscard]] std::vector<CollectionItem> BasicCommands();
[[nodiscard]] std::vector<CollectionItem> ResourceCommands();
[[nodiscard]] std::vector<CollectionItem> LogCommands();
[[nodiscard]] std::vector<CollectionItem> NetworkCommands();
/// Those that wait for hosts that may be silent.
[[nodiscard]] std::vector<CollectionItem> HostCommands(const NetworkTargets& targets,
                                                       std::vector<MissingHost>& missing);

/// Of the maker's own items, each an object with "category", "type" ("cmd", "dir", "file",
/// "variable"), "output" and what the type wants: those of a category. What is wrong with one is
/// logged.
[[nodiscard]] std::vector<CollectionItem> MakersItems(const nlohmann::json& items,
                                                      Category category);

}  // namespace varnel::service
