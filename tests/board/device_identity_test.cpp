// Who the printer is: each source of its identity, from the board's storage to the answer and the
// files that other programs read.
#include <gmock/gmock.h>

#include <fstream>
#include <regex>

#include "board/run_inside.h"
#include "board/served_board.h"
#include "support/eventually.h"
#include "virtual_board/client/daemon_talk.h"
#include "virtual_board/common/files.h"
#include "virtual_board/identity/block.h"

namespace varnel::board {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using testing::AllOf;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;

constexpr const char* kSecret = "c2VjcmV0IGRldmljZSBrZXk=";
/// SHA-1 of "--UnknownMAC" as `printf -- --UnknownMAC | sha1sum` gives it, with the marks of
/// version 5.
constexpr const char* kNamelessUuid = "57c69e11-8e16-5734-be11-a35fb15512fc";
const std::string kKey(32, '\x5A');

std::string Payload(const std::string& serial) {
  return json{{"SerialNumber", serial}, {"ProductCode", "PC7"}, {"PrivateKey", kSecret}}.dump();
}

void Put(const Board& board, const std::string& block, uint64_t offset = kIdentityOffset) {
  WriteIdentityBlock(board.Paths().Dev() / "mmcblk0", offset, block);
}

void Put(const fs::path& file, const std::string& content) {
  std::ofstream(file) << content;
}

fs::path Voltage(const Board& board) {
  return board.Paths().Sys() / "bus/iio/devices/iio:device0/in_voltage2_raw";
}

fs::path Address(const Board& board) {
  return board.Paths().Sys() / "class/net/wlan0/address";
}

void Clear(const Board& board) {
  Put(board, ClearIdentityBlock(Payload("SN-CLEAR")));
  Put(board.Paths().Etc() / "VERSION", "2.3.4\nnot this\n");
  Put(board.Paths().Etc() / "FULLVERSION", "2.3.4-rc1+build.20261122\n");
  Put(Voltage(board), "75\n");
  Put(Address(board), "0a:1b:2c:3d:4e:5f\n");
}

void Sealed(const Board& board, const std::string& key) {
  Put(board, SealedIdentityBlock(Payload("SN-SEALED"), key));
  Put(board.HostPath("/oem") / "identity.key", kKey);
  WithDeployment(R"({"identity": {"key_file": "/oem/identity.key"}})")(board);
}

/// Nothing of what the board could tell is there.
void Nameless(const Board& board) {
  Put(board.Paths().Dev() / "mmcblk0", "");
  fs::remove(Voltage(board));
  fs::remove_all(Address(board).parent_path());
  for (const char* file : {"VERSION", "FULLVERSION"}) Put(board.Paths().Etc() / file, "");
  Put(board.Paths().Proc() / "cpuinfo", "processor\t: 0\n");
}

void ChangeEverySource(const Board& board) {
  WithDeployment(R"({"identity": {"device": "/oem/storage", "offset": 7}})")(board);
  EXPECT_EQ(
      board.Shell("varnel-identity --serial SN-MOVED --product PC8 --offset 7 /oem/storage").status,
      0);
  Put(Voltage(board), "60\n");
  Put(Address(board), "0a:00:00:00:00:ff\n");
  Put(board.Paths().Etc() / "VERSION", "3\n");
  Put(board.Paths().Etc() / "FULLVERSION", "3.0\n");
  Put(board.Paths().Proc() / "cpuinfo", "Serial\t\t: beef\n");
}

/// The form of a name-based identifier: version 5.
std::string UuidLine(const std::string& log) {
  std::smatch line;
  return std::regex_search(log, line, std::regex("UUID is (.*)\n")) ? line[1].str() : "";
}

json Asked(ServedBoard& served) {
  return served.rpc.Call("system.get_device_info", json::object(), "system/request")["result"];
}

std::string Published(const ServedBoard& served) {
  return served.File("/tmp/.serial_number") + served.File("/tmp/.product_code") +
         served.File("/tmp/.version") + served.File("/tmp/.fullversion");
}

/// Boards side by side: each daemon takes seconds to warm up its camera.
class DeviceIdentityTest : public testing::Test {
 protected:
  void SetUp() override {
    for (ServedBoard* served : {&clear_, &sealed_, &foreign_, &nameless_})
      ASSERT_TRUE(served->rpc.AwaitDaemon());
  }
  void TearDown() override {
    for (ServedBoard* served : {&clear_, &sealed_, &foreign_, &nameless_}) {
      const std::string log = served->StopAndReadLog();
      EXPECT_THAT(log, Not(HasSubstr(kSecret)));
      EXPECT_THAT(UuidLine(log), MatchesRegex("[0-9a-f]{8}-[0-9a-f]{4}-5[0-9a-f-]{21}"));
      EXPECT_EQ(
          served->board
              .Shell("grep -rlF '" + std::string(kSecret) + "' /tmp /home /userdata /var/log /run")
              .out,
          "");
    }
  }

  ServedBoard clear_{DaemonOptions(), Clear};
  ServedBoard sealed_{DaemonOptions(), [](const Board& board) { Sealed(board, kKey); }};
  ServedBoard foreign_{DaemonOptions(),
                       [](const Board& board) { Sealed(board, std::string(32, 'x')); }};
  ServedBoard nameless_{DaemonOptions(), Nameless};
};

TEST_F(DeviceIdentityTest, AnswersAndFilesFollowEverySource) {
  EXPECT_EQ(Asked(clear_), json::parse(R"({"state": "success", "serial_number": "SN-CLEAR",
      "product_code": "PC7", "version": "2.3.4", "fullversion": "2.3.4-rc1+build.20261122",
      "hwver": "V1", "mac_address": "0A:1B:2C:3D:4E:5F"})"));
  EXPECT_EQ(Published(clear_), "SN-CLEAR\nPC7\n2.3.4\n2.3.4-rc1+build.20261122\n");
  EXPECT_EQ(Asked(sealed_)["serial_number"], "SN-SEALED");

  const json nobody = json::parse(R"({"state": "success", "serial_number": "--",
      "product_code": "--", "version": "", "fullversion": "", "hwver": "Error",
      "mac_address": "UnknownMAC"})");
  EXPECT_EQ(Asked(nameless_), nobody);
  EXPECT_EQ(Published(nameless_), "--\n--\n\n\n");
  EXPECT_EQ(Asked(foreign_)["serial_number"], "--") << "another key: never garbage";
  EXPECT_THAT(Published(foreign_), HasSubstr("--\n--\n"));
  EXPECT_THAT(nameless_.StopAndReadLog(),
              AllOf(HasSubstr("Unknown serial number"), HasSubstr("Unknown product code"),
                    HasSubstr("Get MY failed, retry"), HasSubstr("Get hardware version failed")));
  EXPECT_EQ(UuidLine(nameless_.board.DaemonLog()), kNamelessUuid);
  ASSERT_TRUE(nameless_.board.StartDaemon());
  ASSERT_TRUE(nameless_.rpc.AwaitDaemon());
  fs::create_directories(Address(nameless_.board).parent_path());
  Put(Address(nameless_.board), "0a:1b:2c:3d:4e:5f\n");
  EXPECT_TRUE(test::Eventually([this] {
    return Asked(nameless_)["mac_address"] == "0A:1B:2C:3D:4E:5F";
  })) << "the interface came late";

  // The next start sees what has changed meanwhile, here in a storage that the maker moved.
  ChangeEverySource(clear_.board);
  clear_.Restart();
  EXPECT_EQ(Asked(clear_), json::parse(R"({"state": "success", "serial_number": "SN-MOVED",
      "product_code": "PC8", "version": "3", "fullversion": "3.0", "hwver": "Unknown",
      "mac_address": "0A:00:00:00:00:FF"})"));
  EXPECT_EQ(Published(clear_), "SN-MOVED\nPC8\n3\n3.0\n");
  EXPECT_THAT(clear_.File("/home/ruxo/printer_data/varnel/last_recorded_date"),
              MatchesRegex("[0-9]{14}"));
}

/// What the drive's event does in the daemon: clients may have files written to it.
TEST_F(DeviceIdentityTest, AnInsertedDriveIsOpenToClientsUntilItIsPulledOut) {
  const Board& board = clear_.board;
  const std::string photo = "/run/my drive/photo.jpg";
  EXPECT_EQ(board.Shell("mkdir -p '/run/my drive'").status, 0);
  EXPECT_EQ(clear_.Photo(photo), Error(-32600, "Invalid Request"));
  EXPECT_EQ(board.Exec({"varnel-usb", "plug", "--mount", "/run/my drive", "--size", "100"}).status,
            0);
  EXPECT_TRUE(test::Eventually([&] { return clear_.Photo(photo) == Success(); }));
  EXPECT_EQ(board.Exec({"test", "-s", photo}).status, 0);
  clear_.Restart();
  EXPECT_EQ(clear_.Photo(photo), Success()) << "there before the daemon";
  EXPECT_EQ(board.Exec({"varnel-usb", "unplug"}).status, 0);
  EXPECT_EQ(clear_.Photo(photo), Error(-32600, "Invalid Request"));
}

}  // namespace
}  // namespace varnel::board
