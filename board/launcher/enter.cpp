#include "virtual_board/launcher/enter.h"

#include <unistd.h>

#include <nlohmann/json.hpp>

#include "virtual_board/common/files.h"

namespace varnel::board {

namespace {

struct Namespace {
  const char* name;
  const char* option;
};
constexpr Namespace kNetwork[] = {{"user", "-U"}, {"net", "-n"}};
constexpr Namespace kOthers[] = {{"mnt", "-m"}, {"pid", "-p"}, {"ipc", "-i"}, {"uts", "-u"}};

std::string Identity(const std::string& process, const char* name) {
  std::error_code error;
  return std::filesystem::read_symlink("/proc/" + process + "/ns/" + name, error);
}

/// One cannot enter where one already is.
void AddMissing(std::vector<std::string>& words, const std::string& pid, const Namespace& space) {
  if (Identity("self", space.name) == Identity(pid, space.name)) return;
  words.emplace_back(space.option);
  if (space.option == std::string("-U")) words.emplace_back("--preserve-credentials");
}

std::vector<std::string> Nsenter(pid_t pid) {
  std::vector<std::string> words = {"nsenter", "-t", std::to_string(pid)};
  for (const Namespace& space : kNetwork) AddMissing(words, std::to_string(pid), space);
  return words;
}

}  // namespace

std::vector<std::string> EnterNetworkCommand(pid_t pid, const std::vector<std::string>& command) {
  std::vector<std::string> words = Nsenter(pid);
  words.emplace_back("--");
  words.insert(words.end(), command.begin(), command.end());
  return words;
}

std::vector<std::string> EnterCommand(const Layout& layout, pid_t pid,
                                      const std::vector<std::string>& command) {
  std::vector<std::string> words = Nsenter(pid);
  for (const Namespace& space : kOthers) AddMissing(words, std::to_string(pid), space);
  words.insert(words.end(), {"--", "/usr/bin/env", "-i"});
  const auto settings = nlohmann::json::parse(ReadFile(layout.Services()));
  for (const auto& [name, value] : settings.at("environment").items()) {
    words.push_back(name + "=" + value.get<std::string>());
  }
  words.insert(words.end(), command.begin(), command.end());
  return words;
}

}  // namespace varnel::board
