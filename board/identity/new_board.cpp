#include "virtual_board/identity/new_board.h"

#include <array>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <random>
#include <stdexcept>

#include "virtual_board/common/files.h"
#include "virtual_board/identity/block.h"

namespace varnel::board {

namespace fs = std::filesystem;

namespace {

constexpr const char* kCpuInfo =
    "processor\t: 0\n"
    "BogoMIPS\t: 48.00\n"
    "Features\t: fp asimd evtstrm crc32 cpuid\n"
    "CPU architecture: 8\n"
    "\n"
    "Hardware\t: virtual board\n"
    "Serial\t\t: 0123456789abcdef\n";

/// In the middle of what stands for hardware version V2.
constexpr const char* kHardwareVoltage = "285\n";

void WriteOnce(const fs::path& file, const std::string& content) {
  if (fs::exists(file)) return;
  fs::create_directories(file.parent_path());
  if (!ReplaceFile(file, content)) throw std::runtime_error("cannot write " + file.string());
}

unsigned RandomNumber(unsigned below) {
  std::random_device device;
  return std::uniform_int_distribution<unsigned>(0, below - 1)(device);
}

std::string Formatted(const char* format, unsigned number) {
  std::array<char, 32> text{};
  std::snprintf(text.data(), text.size(), format, number);
  return text.data();
}

void MakeIdentityBlock(const fs::path& storage, KeyKind key) {
  if (fs::exists(storage)) return;
  const nlohmann::json identity = {{"SerialNumber", Formatted("VB%08u", RandomNumber(100'000'000))},
                                   {"ProductCode", "VBOARD"},
                                   {"PrivateKey", NewPrivateKey(key)}};
  WriteIdentityBlock(storage, kIdentityOffset, ClearIdentityBlock(identity.dump()));
}

}  // namespace

void WriteIdentityFiles(const Layout& layout, KeyKind key) {
  MakeIdentityBlock(layout.Dev() / "mmcblk0", key);
  WriteOnce(layout.Etc() / "VERSION", "1.0.0\n");
  WriteOnce(layout.Etc() / "FULLVERSION", "1.0.0-virtual\n");
  WriteOnce(layout.Sys() / "bus/iio/devices/iio:device0/in_voltage2_raw", kHardwareVoltage);
  WriteOnce(layout.Sys() / "class/net/wlan0/address",
            Formatted("02:56:42:00:00:%02x\n", RandomNumber(0x100)));
  WriteOnce(layout.Proc() / "cpuinfo", kCpuInfo);
}

}  // namespace varnel::board
