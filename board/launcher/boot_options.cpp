#include "virtual_board/launcher/boot_options.h"

#include <functional>
#include <stdexcept>

namespace varnel::board {

namespace {

/// The words of the command line, taken one after another.
class Words {
 public:
  explicit Words(const std::vector<std::string>& words) : words_(words) {}
  [[nodiscard]] bool Empty() const { return next_ == words_.size(); }
  std::string Take(const std::string& wanted_by) {
    if (Empty()) throw std::invalid_argument("value missing after " + wanted_by);
    return words_[next_++];
  }

 private:
  const std::vector<std::string>& words_;
  size_t next_ = 0;
};

CameraKind ParseCamera(const std::string& name) {
  if (name == "mipi") return CameraKind::kMipi;
  if (name == "usb") return CameraKind::kUsb;
  throw std::invalid_argument("unknown camera " + name);
}

KeyKind ParseKeyKind(const std::string& name) {
  if (name == "ec") return KeyKind::kEc;
  if (name == "rsa") return KeyKind::kRsa;
  throw std::invalid_argument("unknown kind of key " + name);
}

void TakeBind(BootOptions& options, Words& words) {
  const std::string host = std::filesystem::absolute(words.Take("--bind"));
  options.binds.emplace_back(host, words.Take("--bind"));
}

void TakeVariable(BootOptions& options, Words& words) {
  const std::string name = words.Take("--setenv");
  options.environment[name] = words.Take("--setenv");
}

using Action = std::function<void(BootOptions&, Words&)>;
const std::map<std::string, Action>& Actions() {
  static const std::map<std::string, Action> actions = {
      {"--camera", [](auto& o, auto& words) { o.camera = ParseCamera(words.Take("--camera")); }},
      {"--daemon", [](auto& o, auto& words) { o.daemon = words.Take("--daemon"); }},
      {"--no-daemon", [](auto& o, auto&) { o.start_daemon = false; }},
      {"--no-broker", [](auto& o, auto&) { o.start_broker = false; }},
      {"--no-npu", [](auto& o, auto&) { o.npu = false; }},
      {"--clock", [](auto& o, auto&) { o.clock = true; }},
      {"--device-key",
       [](auto& o, auto& words) { o.device_key = ParseKeyKind(words.Take("--device-key")); }},
      {"--cloud", [](auto& o, auto& words) { o.cloud = words.Take("--cloud"); }},
      {"--foreground", [](auto& o, auto&) { o.foreground = true; }},
      {"--bind", TakeBind},
      {"--setenv", TakeVariable},
  };
  return actions;
}

void TakeWord(BootOptions& options, const std::string& word, Words& words) {
  const auto action = Actions().find(word);
  if (action != Actions().end()) {
    action->second(options, words);
  } else if (options.directory.empty() && word.rfind("--", 0) != 0) {
    options.directory = word;
  } else {
    throw std::invalid_argument("unknown argument " + word);
  }
}

}  // namespace

BootOptions ParseBootOptions(const std::vector<std::string>& arguments) {
  BootOptions options;
  Words words(arguments);
  while (!words.Empty()) TakeWord(options, words.Take("boot"), words);
  if (options.directory.empty()) throw std::invalid_argument("no board directory");
  if (options.daemon.empty()) options.start_daemon = false;
  return options;
}

}  // namespace varnel::board
