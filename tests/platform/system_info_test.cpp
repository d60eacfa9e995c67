#include "platform/system_info.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <functional>
#include <string>

#include "support/fake_clock.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"
#include "utils/owned.h"
#include "utils/secret.h"
#include "virtual_board/identity/block.h"

namespace varnel::platform {
namespace {

using hal_adapter::DeviceInfo;
using namespace std::string_literals;
using testing::HasSubstr;

/// Does something to the board at each pause.
class BusyClock : public test::FakeClock {
 public:
  std::function<void()> on_pause = [] {};
  void SleepFor(std::chrono::milliseconds time) override {
    FakeClock::SleepFor(time);
    on_pause();
  }
};

/// Whether this text in lower case stands in memory that we may write, freed memory included.
bool IsInMemory(const std::string& upper_case) {
  constexpr uint64_t kLargestRegion = uint64_t{1} << 26U;  // the sanitizers' own are larger
  const utils::UniqueFd memory(::open("/proc/self/mem", O_RDONLY | O_CLOEXEC));
  std::ifstream maps("/proc/self/maps");
  uint64_t start = 0;
  uint64_t end = 0;
  char dash = 0;
  std::string rest;
  while (maps >> std::hex >> start >> dash >> end && std::getline(maps, rest)) {
    if (!rest.starts_with(" rw") || end - start > kLargestRegion) continue;
    utils::SecretString region(end - start);  // holds the text once it was found
    const ssize_t got =
        ::pread(memory.Get(), region.Data(), end - start, static_cast<off_t>(start));
    const std::string_view bytes =
        region.Text().substr(0, static_cast<size_t>(std::max<ssize_t>(got, 0)));
    if (std::search(bytes.begin(), bytes.end(), upper_case.begin(), upper_case.end(),
                    [](char c, char upper) { return c == (upper | 0x20); }) != bytes.end())
      return true;
  }
  return false;
}

class SystemInfoTest : public testing::Test {
 protected:
  SystemInfoTest() {
    board_.identity = {dir_ / "mmcblk0", 0, ""};
    board_.version = dir_ / "VERSION";
    board_.full_version = dir_ / "FULLVERSION";
    board_.hardware_adc = dir_ / "adc";
    board_.mac_address = dir_ / "%s/address";
    board_.processor = dir_ / "cpuinfo";
    board_.clock = &clock_;
  }

  void WriteIdentity(const std::string& json) {
    dir_.Write("mmcblk0", board::ClearIdentityBlock(json));
  }
  DeviceInfo Read() {
    DeviceInfo info;
    std::memset(&info, '#', sizeof info);
    EXPECT_EQ(get_device_info(board_, "Unknown", &info), hal_adapter::HalStatus::kSuccess);
    return info;
  }
  /// A field after a file got this content.
  template <size_t Size>
  std::string With(const char* file, const std::string& content, char (DeviceInfo::*field)[Size]) {
    dir_.Write(file, content);
    const DeviceInfo info = Read();
    return info.*field;
  }

  test::LogCapture log_;
  test::TempDir dir_;
  BusyClock clock_;
  SystemInfoBoard board_;
};

TEST_F(SystemInfoTest, EachKeyOfTheBlockFailsAloneAndNamesAreOneLineOfText) {
  WriteIdentity(R"({"SerialNumber":"SN01","ProductCode":9,"PrivateKey":"the-secret\n"})");
  const DeviceInfo info = Read();
  EXPECT_STREQ(info.serial_number, "SN01");
  EXPECT_STREQ(info.product_code, "--");
  EXPECT_STREQ(info.device_key, "the-secret\n");
  EXPECT_THAT(log_.Text(), testing::Not(HasSubstr("the-secret")));
  for (const char* name : {"", "P\\n", "\\u202ES"}) {
    WriteIdentity(fmt::format(R"({{"SerialNumber":"{}","PrivateKey":"k"}})", name));
    EXPECT_STREQ(Read().serial_number, "--");
  }
  EXPECT_EQ(clock_.Elapsed(), std::chrono::milliseconds(0));
}

TEST_F(SystemInfoTest, TheDeviceKeyIsTriedFiveTimesWithinHalfASecond) {
  const DeviceInfo info = Read();
  EXPECT_STREQ(info.device_key, "--");
  EXPECT_EQ(log_.Count("IMSYS", "Get MY failed, retry"), 5U);
  EXPECT_EQ(clock_.Elapsed(), std::chrono::milliseconds(500));
  int pauses = 0;
  clock_.on_pause = [&] {
    if (++pauses == 4) WriteIdentity(R"({"PrivateKey":"the-secret"})");
  };
  EXPECT_STREQ(Read().device_key, "the-secret") << "read anew after each pause";
  EXPECT_EQ(get_device_info(board_, "Unknown", nullptr), hal_adapter::HalStatus::kInvalidParameter);
}

TEST_F(SystemInfoTest, TheDeviceKeyLeavesNoCopyInMemory) {
  const std::string hidden = "KEEPTHISKEYOUTOFTHEMEMORYOFTHEDAEMONBEFOREANDAFTERITHASBEENREADX";
  const std::string block_key(32, 'k');
  board_.identity.key_file = dir_.Write("key", block_key);
  const pid_t maker = ::fork();
  if (maker == 0) {
    std::string secret = hidden;
    for (char& c : secret) c |= 0x20;
    const std::string identity = R"({"PrivateKey":")" + secret + "\"}";
    board::WriteIdentityBlock(board_.identity.device, 0,
                              board::SealedIdentityBlock(identity, block_key));
    ::_exit(0);
  }
  ::waitpid(maker, nullptr, 0);
  DeviceInfo info{};
  ASSERT_EQ(get_device_info(board_, "Unknown", &info), hal_adapter::HalStatus::kSuccess);
  EXPECT_EQ(std::strlen(info.device_key), 64U);
  EXPECT_TRUE(IsInMemory(hidden)) << "it would be found";
  utils::Wipe(&info, sizeof info);
  EXPECT_FALSE(IsInMemory(hidden));
}

TEST_F(SystemInfoTest, HardwareVersionHasGuardZonesBetweenItsBands) {
  const std::pair<const char*, const char*> cases[] = {
      {"-2147483648", "V0"}, {"0\n", "V0"}, {"55\n", "V0"},       {"56\n", "Unknown"},
      {"74", "Unknown"},     {"75", "V1"},  {" 200 \r\n", "V1"},  {"201", "Unknown"},
      {"229", "Unknown"},    {"230", "V2"}, {"340", "V2"},        {"341", "Unknown"},
      {"359", "Unknown"},    {"360", "V3"}, {"470", "V3"},        {"471", "Unknown"},
      {"499", "Unknown"},    {"500", "V4"}, {"610", "V4"},        {"611", "Unknown"},
      {"649", "Unknown"},    {"650", "V5"}, {"760", "V5"},        {"761", "Unknown"},
      {"789", "Unknown"},    {"790", "V6"}, {"900", "V6"},        {"901", "Unknown"},
      {"979", "Unknown"},    {"980", "V7"}, {"2147483647", "V7"}, {"2147483648", "Error"},
      {"abc", "Error"},      {"", "Error"}, {" \n", "Error"},     {"12abc", "Error"},
  };
  for (const auto& [value, version] : cases) {
    EXPECT_EQ(With("adc", value, &DeviceInfo::hardware_version), version) << value;
  }
}

TEST_F(SystemInfoTest, VersionsAndAddressAreFirstLinesUpToALimit) {
  EXPECT_EQ(With("VERSION", "0123456789abcdefX\n", &DeviceInfo::firmware_version),
            "0123456789abcdef");
  EXPECT_EQ(With("VERSION", "1.2\r\nsecond\n", &DeviceInfo::firmware_version), "1.2");
  EXPECT_EQ(With("VERSION", "\nsecond\n", &DeviceInfo::firmware_version), "");
  EXPECT_EQ(With("FULLVERSION", std::string(33, 'v'), &DeviceInfo::full_firmware_version),
            std::string(32, 'v'));
  EXPECT_EQ(With("wlan0/address", "\n", &DeviceInfo::mac), "UnknownMAC");
  EXPECT_EQ(With("wlan0/address", "0a:1b:2c:3d:4e:ff\n", &DeviceInfo::mac), "0A:1B:2C:3D:4E:FF");
}

TEST_F(SystemInfoTest, ProcessorSerialIsTheValueOfALineOfItsOwn) {
  const std::string long_line = "x: " + std::string(253, 'x');
  const std::pair<std::string, std::string> cases[] = {
      {"processor\t: 0\nSerial\t\t: 0badcafe\nSerial : second\n", "0badcafe"},
      {"Serial:1 2 ", "1 2 "},
      {"Serial:\t \r\n", ""},
      {"Serial\nSerial : 2", "2"},
      {" Serial : 1\nserial : 2\n", ""},
      {long_line + "Serial : 1\nx\n", ""},
      {long_line + "\nSerial : 1", "1"},
      {"Serial : " + std::string(300, 's'), std::string(247, 's')},
      {"", ""},
  };
  for (const auto& [text, serial] : cases) {
    EXPECT_EQ(With("cpuinfo", text, &DeviceInfo::processor_serial), serial) << text;
  }
}

}  // namespace
}  // namespace varnel::platform
