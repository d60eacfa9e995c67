// Who the printer is: each source of its identity, from the board's storage to the answer and the
// files that other programs read.
#include <gmock/gmock.h>

#include <fstream>

#include "board/daemon_talk.h"
#include "board/served_board.h"
#include "virtual_board/common/files.h"
#include "virtual_board/identity/block.h"

namespace varnel::board {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;

constexpr const char* kSecret = "c2VjcmV0IGRldmljZSBrZXk=";
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
      EXPECT_THAT(served->rpc.Problems(), IsEmpty());
      EXPECT_THAT(served->StopAndReadLog(), Not(HasSubstr(kSecret)));
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

  // The next start sees what has changed meanwhile, here a storage that the maker moved.
  WithDeployment(R"({"identity": {"device": "/oem/storage", "offset": 7}})")(clear_.board);
  WriteIdentityBlock(clear_.board.HostPath("/oem") / "storage", 7,
                     ClearIdentityBlock(Payload("SN-MOVED")));
  Put(Voltage(clear_.board), "60\n");
  clear_.Restart();
  EXPECT_EQ(Asked(clear_)["serial_number"], "SN-MOVED");
  EXPECT_EQ(Asked(clear_)["hwver"], "Unknown");
  EXPECT_EQ(clear_.File("/tmp/.serial_number"), "SN-MOVED\n");
  EXPECT_THAT(clear_.File("/home/ruxo/printer_data/varnel/last_recorded_date"),
              MatchesRegex("[0-9]{14}"));
}

/// What the drive's event does in the daemon: clients may have files written to it.
TEST_F(DeviceIdentityTest, AnInsertedDriveIsOpenToClientsUntilItIsPulledOut) {
  const Board& board = clear_.board;
  const std::string photo = "/run/drive/photo.jpg";
  EXPECT_EQ(board.Shell("mkdir -p /run/drive").status, 0);
  EXPECT_EQ(clear_.Photo(photo), Error(-32600, "Invalid Request"));
  EXPECT_EQ(board.Exec({"varnel-usb", "plug", "--mount", "/run/drive", "--size", "100"}).status, 0);
  EXPECT_TRUE(test::Eventually([&] { return clear_.Photo(photo) == Success(); }));
  EXPECT_EQ(board.Exec({"test", "-s", photo}).status, 0);
  EXPECT_EQ(board.Exec({"varnel-usb", "unplug"}).status, 0);
  EXPECT_EQ(clear_.Photo(photo), Error(-32600, "Invalid Request"));
}

}  // namespace
}  // namespace varnel::board
