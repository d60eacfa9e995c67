#include "platform/system_info.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <climits>
#include <optional>
#include <string_view>

#include "platform/copy_text.h"
#include "utils/atomic_file.h"
#include "utils/log_printf.h"
#include "utils/utf8.h"

namespace varnel::platform {
namespace {

using hal_adapter::HalStatus;
using namespace std::chrono_literals;

constexpr const char* kTag = "IMSYS";
constexpr const char* kUnreadable = "--";
constexpr const char* kNoHardwareVersion = "Error";
constexpr const char* kUnknownMac = "UnknownMAC";

constexpr int kReadTries = 2;
constexpr int kDeviceKeyAttempts = 5;
constexpr auto kDeviceKeyPause = 100ms;

constexpr size_t kFileLimit = size_t{1} << 20U;
constexpr size_t kVersionLimit = 16;
constexpr size_t kFullVersionLimit = 32;
constexpr size_t kMacLimit = 18;
constexpr size_t kProcessorLineLimit = 256;

/// The values between the bands are guard zones and mean none of the versions.
struct VersionBand {
  int first;
  int last;
  const char* version;
};
constexpr VersionBand kVersionBands[] = {
    {INT_MIN, 55, "V0"}, {75, 200, "V1"},  {230, 340, "V2"}, {360, 470, "V3"},
    {500, 610, "V4"},    {650, 760, "V5"}, {790, 900, "V6"}, {980, INT_MAX, "V7"},
};

void LogWhy(const char* key, IdentityStatus status) {
  PLOG_WARN(kTag, "%s of the identity block: %s", key, identity_error_string(status));
}

template <size_t Size>
IdentityStatus ReadKey(const SystemInfoBoard& board, const char* key, char (&field)[Size]) {
  IdentityStatus status = IdentityStatus::kSuccess;
  for (int i = 0; i < kReadTries; ++i) {
    status = read_identity_value(&board.identity, key, field, Size);
    if (status == IdentityStatus::kSuccess) break;
  }
  return status;
}

/// `text` is valid UTF-8.
bool IsOneLine(std::string_view text) {
  while (!text.empty()) {
    const auto character = utils::FirstCharacter(text);
    if (!character || !utils::IsHarmless(character->code)) return false;
    text.remove_prefix(character->bytes);
  }
  return true;
}

/// What goes into one-line files and topics; a board whose name is empty has none.
bool IsName(std::string_view text) {
  return !text.empty() && IsOneLine(text);
}

template <size_t Size>
void ReadName(const SystemInfoBoard& board, const char* key, const char* failure,
              char (&field)[Size]) {
  IdentityStatus status = ReadKey(board, key, field);
  if (status == IdentityStatus::kSuccess && IsName(field)) return;
  if (status == IdentityStatus::kSuccess) status = IdentityStatus::kNoValue;
  PLOG_WARN(kTag, "%s", failure);
  LogWhy(key, status);
  copy_text(field, kUnreadable);
}

template <size_t Size>
void ReadDeviceKey(const SystemInfoBoard& board, char (&field)[Size]) {
  constexpr const char* kKey = "PrivateKey";
  IdentityStatus status = IdentityStatus::kSuccess;
  for (int i = 0; i < kDeviceKeyAttempts; ++i) {
    status = ReadKey(board, kKey, field);
    if (status == IdentityStatus::kSuccess) return;
    PLOG_WARN(kTag, "Get MY failed, retry");
    copy_text(field, kUnreadable);
    board.clock->SleepFor(kDeviceKeyPause);
  }
  LogWhy(kKey, status);
}

std::string_view FirstLineOf(std::string_view text) {
  return text.substr(0, text.find_first_of("\r\n"));
}

/// Empty when there is none.
std::string FirstLine(const std::string& file, size_t limit) {
  const std::string text = utils::ReadSmallFile(file, kFileLimit).value_or("");
  return std::string(FirstLineOf(text).substr(0, limit));
}

/// The integer that the file consists of, blanks around it aside.
std::optional<int> ReadInteger(const std::string& file) {
  constexpr std::string_view kBlanks = " \t\r\n";
  const std::string text = utils::ReadSmallFile(file, kFileLimit).value_or("");
  const size_t start = text.find_first_not_of(kBlanks);
  if (start == text.npos) return std::nullopt;
  const char* end = text.data() + text.find_last_not_of(kBlanks) + 1;
  int value = 0;
  const auto [rest, error] = std::from_chars(text.data() + start, end, value);
  if (error != std::errc{} || rest != end) return std::nullopt;
  return value;
}

std::string HardwareVersion(const std::string& adc, const char* unknown) {
  const std::optional<int> value = ReadInteger(adc);
  if (!value) {
    PLOG_ERROR(kTag, "Get hardware version failed");
    return kNoHardwareVersion;
  }
  for (const VersionBand& band : kVersionBands) {
    if (*value >= band.first && *value <= band.last) return band.version;
  }
  PLOG_WARN(kTag, "Unknown hardware version");
  return unknown;
}

std::string MacAddress(const SystemInfoBoard& board) {
  constexpr std::string_view kPlace = "%s";
  std::string file = board.mac_address;
  if (const size_t at = file.find(kPlace); at != file.npos) {
    file.replace(at, kPlace.size(), board.interface);
  }
  std::string mac = FirstLine(file, kMacLimit);
  if (mac.empty()) return kUnknownMac;
  std::transform(mac.begin(), mac.end(), mac.begin(), [](char c) {
    return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
  });
  return mac;
}

/// The value of a "Serial" line; nothing for any other.
std::optional<std::string> SerialIn(std::string_view line) {
  const size_t colon = line.find(':');
  if (!line.starts_with("Serial") || colon == line.npos) return std::nullopt;
  const size_t value = line.find_first_not_of(" \t", colon + 1);
  return std::string(line.substr(std::min(value, line.size())));
}

std::string ProcessorSerial(const std::string& file) {
  const std::string text = utils::ReadSmallFile(file, kFileLimit).value_or("");
  std::string_view rest = text;
  while (!rest.empty()) {
    const auto serial = SerialIn(FirstLineOf(rest).substr(0, kProcessorLineLimit));
    if (serial) return *serial;
    rest.remove_prefix(std::min(rest.find('\n'), rest.size() - 1) + 1);
  }
  return {};
}

}  // namespace

HalStatus get_device_info(const SystemInfoBoard& board, const char* unknown_version,
                          hal_adapter::DeviceInfo* info) {
  if (info == nullptr) return HalStatus::kInvalidParameter;
  *info = {};
  ReadName(board, "SerialNumber", "Unknown serial number", info->serial_number);
  ReadName(board, "ProductCode", "Unknown product code", info->product_code);
  ReadDeviceKey(board, info->device_key);
  copy_text(info->firmware_version, FirstLine(board.version, kVersionLimit));
  copy_text(info->full_firmware_version, FirstLine(board.full_version, kFullVersionLimit));
  copy_text(info->hardware_version, HardwareVersion(board.hardware_adc, unknown_version));
  copy_text(info->mac, MacAddress(board));
  copy_text(info->processor_serial, ProcessorSerial(board.processor));
  return HalStatus::kSuccess;
}

}  // namespace varnel::platform
