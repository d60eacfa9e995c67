// varnel-usb: plugs USB drives into the board in which it runs. See docs/virtual-board.md.
#include <getopt.h>

#include <charconv>
#include <cstdio>
#include <exception>
#include <sstream>
#include <stdexcept>

#include "virtual_board/usb/drive.h"

namespace {

using varnel::board::Drive;
using varnel::board::PlugOptions;

constexpr const char* kUsage = R"(Usage:
  varnel-usb plug [NAME]       a USB drive /dev/NAME (sda) shows up, mounted on /mnt/udisk
    --mount DIR                mounted there
    --no-mount                 never mounted, like a card reader without a card
    --mount-after MS           mounted that long after it has shown up
    --size MIB                 room on it (8)
    --fill COMMAND             a shell command that makes its content, run in its top directory
    --internal                 an internal disk
    --actions LIST             what is told about it (add,change)
  varnel-usb unplug [NAME]     it is pulled out
)";

unsigned Number(const std::string& text) {
  unsigned number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size())
    throw std::invalid_argument("no number: " + text);
  return number;
}

std::vector<std::string> Words(const std::string& list) {
  std::istringstream in(list);
  std::vector<std::string> words;
  for (std::string word; std::getline(in, word, ',');) words.push_back(word);
  return words;
}

void Take(PlugOptions& options, int option) {
  switch (option) {
    case 'm':
      options.mount = ::optarg;
      break;
    case 'n':
      options.mount.clear();
      break;
    case 'l':
      options.mount_after = std::chrono::milliseconds(Number(::optarg));
      break;
    case 's':
      options.size_mib = Number(::optarg);
      break;
    case 'f':
      options.fill = ::optarg;
      break;
    case 'i':
      options.usb = false;
      break;
    case 'a':
      options.actions = Words(::optarg);
      break;
    default:
      throw std::invalid_argument(std::string("wrong option\n") + kUsage);
  }
}

PlugOptions ParseOptions(int argc, char** argv) {
  static const option names[] = {
      {"mount", required_argument, nullptr, 'm'},       {"no-mount", no_argument, nullptr, 'n'},
      {"mount-after", required_argument, nullptr, 'l'}, {"size", required_argument, nullptr, 's'},
      {"fill", required_argument, nullptr, 'f'},        {"internal", no_argument, nullptr, 'i'},
      {"actions", required_argument, nullptr, 'a'},     {}};
  PlugOptions options;
  for (int found = 0; (found = ::getopt_long(argc, argv, "", names, nullptr)) != -1;)
    Take(options, found);
  return options;
}

int Run(int argc, char** argv) {
  const PlugOptions options = ParseOptions(argc, argv);
  const std::string verb = ::optind < argc ? argv[::optind] : "";
  const Drive drive(::optind + 1 < argc ? argv[::optind + 1] : "sda");
  if (verb == "plug") {
    drive.Plug(options);
  } else if (verb == "unplug") {
    drive.Unplug();
  } else {
    std::fputs(kUsage, stderr);
    return 2;
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) try {
  return Run(argc, argv);
} catch (const std::exception& error) {
  std::fprintf(stderr, "varnel-usb: %s\n", error.what());
  return 1;
}
