// A diagnosis onto a USB drive: what a support person gets, and what drives that are full, pulled
// out or made by an enemy do to it.
#include <gmock/gmock.h>

#include <algorithm>
#include <random>
#include <thread>

#include "board/run_inside.h"
#include "board/served_board.h"
#include "support/eventually.h"
#include "support/temp_dir.h"
#include "virtual_board/common/files.h"

namespace varnel::board {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using testing::AllOf;
using testing::HasSubstr;
using namespace std::chrono_literals;

const std::string kOrder =
    "mkdir .maintenance && echo '{\"action\": \"export_log\", \"file\": \"../../etc/x\"}' > "
    ".maintenance/export_log.json";
/// The drive's content stays to be seen there when it is unmounted.
const std::string kMirrored = kOrder + " && mkdir -p /mnt/mirror && mount --bind . /mnt/mirror";

class ExportBoard : public ServedBoard {
 public:
  ExportBoard()
      : ServedBoard(DaemonOptions(), [](const Board& one) { one.SetCameraFaults("unplug"); }) {
    EXPECT_TRUE(rpc.AwaitDaemon());
  }

  void Plug(const std::string& name, const std::string& mount, const std::string& fill,
            const std::string& size = "100") const {
    const ProgramResult run = board.Exec(
        {"varnel-usb", "plug", name, "--mount", mount, "--size", size, "--fill", fill}, 60s);
    EXPECT_EQ(run.status, 0) << run.err;
  }
  void Unplug(const std::string& name) const { Run("varnel-usb unplug " + name); }
  std::string Run(const std::string& line) const {
    const ProgramResult run = board.Shell(line, 60s);
    EXPECT_EQ(run.status, 0) << line << run.err;
    return run.out;
  }
  [[nodiscard]] std::vector<json> Told() const {
    std::vector<json> told;
    for (const auto& one : rpc.Notifications("notify_export_log")) told.push_back(one.params);
    return told;
  }
  /// The notification with that number, from 0.
  [[nodiscard]] json Await(size_t number) const {
    EXPECT_TRUE(test::Eventually([&] { return Told().size() > number; }, 100s));
    return Told().size() > number ? Told()[number] : json::object();
  }
  /// How an export ends that was begun after so many notifications.
  [[nodiscard]] json Outcome(size_t before) const {
    EXPECT_EQ(Await(before), (json{{"state", "started"}}));
    return Await(before + 1);
  }
  /// The archive that a drive's note tells of; empty when there is none. What has a final name must
  /// be whole.
  [[nodiscard]] std::string Exported(const std::string& directory) const {
    const std::string note = board.Shell("cat " + directory + "/LOGS_MAINTENANCE_*.json").out;
    if (note.empty()) return "";
    const json told = json::parse(note);
    std::string file = directory + "/" + told.at("file").get<std::string>();
    EXPECT_THAT(board.Shell("sha256sum " + file).out, HasSubstr(told.at("sha256")));
    EXPECT_EQ(board.Shell("stat -c %s " + file).out, told.at("size").dump() + "\n");
    return file;
  }
};

TEST(ExportTest, AtItsEndTheDriveCanGo) {
  ExportBoard board;
  const long descriptors = board.board.DaemonCounters().descriptors;
  board.Plug("sda", "/mnt/udisk", kMirrored);
  EXPECT_EQ(board.Await(0), (json{{"state", "started"}}));
  EXPECT_EQ(board.rpc.Call("system.collect_sysinfo",
                           {{"encrypt", false}, {"upload", false}, {"include", json::object()}},
                           "system/request"),
            (json{{"result", {{"state", "busy"}}}}));
  board.Plug("sdb", "/mnt/second", kOrder);
  const json told = board.Await(1);
  const ProgramResult gone = board.board.Exec({"umount", "/mnt/udisk"});
  EXPECT_EQ(gone.status, 0) << gone.err;
  const std::string archive = board.Exported("/mnt/mirror");
  EXPECT_EQ(told, (json{{"state", "completed"},
                        {"filepath", "/mnt/udisk/" + fs::path(archive).filename().string()},
                        {"filesize", std::stoul(board.board.Shell("stat -c %s " + archive).out)},
                        {"safe_to_remove", true}}));
  EXPECT_TRUE(
      test::Eventually([&] { return board.board.DaemonCounters().descriptors <= descriptors; }));

  const test::TempDir files;
  board.Run("cp " + archive + " /userdata/exported.tar.gz");
  const ProgramResult opened = RunProgram(
      {VARNEL_OPEN_ARCHIVE, board.board.Paths().CollectionKey().string(),
       board.board.HostPath("/userdata/exported.tar.gz").string(), (files / "opened").string()});
  EXPECT_EQ(opened.status, 0) << opened.err;
  EXPECT_THAT(ReadFile(files / "opened/manifest.json"),
              AllOf(HasSubstr("uptime.txt"), HasSubstr("dmesg.txt"), HasSubstr("route.txt"),
                    HasSubstr("ai_detect_params.txt"), HasSubstr("coredump/coredump.tar.gz")));
  EXPECT_EQ(board.Told().size(), 2U);
  const std::string log = board.StopAndReadLog();
  EXPECT_THAT(log, AllOf(HasSubstr("export_log.json: exporting logs to /mnt/second"),
                         HasSubstr("Export already in progress, skipping")));
}

TEST(ExportTest, WhatADriveCannotTakeFailsAndTheNextOneWorks) {
  ExportBoard board;
  // Enough to be pulled out in the middle of.
  board.Run(
      "mkdir -p /userdata/factory && head -c 20000000 /dev/urandom > "
      "/userdata/factory/noise");
  const std::pair<std::string, std::string> refused[] = {
      {kOrder + " && { cat /dev/zero > full 2> /dev/null; true; }", "No space left on device"},
      {kOrder + " && mount -o remount,ro \"$PWD\"", "Read-only file system"}};
  for (const auto& [fill, reason] : refused) {
    const size_t before = board.Told().size();
    board.Plug("sda", "/mnt/udisk", fill, "8");
    EXPECT_EQ(board.Outcome(before), (json{{"state", "failed"}, {"reason", reason}}));
    EXPECT_EQ(board.board.Exec({"umount", "/mnt/udisk"}).status, 0);
    board.Unplug("sda");
  }

  const char* many = std::getenv("VARNEL_PULLS");
  const int pulls = many == nullptr ? 5 : std::stoi(many);
  std::mt19937 random(std::random_device{}());
  const long descriptors = board.board.DaemonCounters().descriptors;
  for (int pull = 0; pull < pulls; ++pull) {
    const size_t before = board.Told().size();
    board.Plug("sda", "/mnt/udisk", kMirrored);
    EXPECT_EQ(board.Await(before), (json{{"state", "started"}}));
    if (pull % 2 == 0)  // until it is written to
      board.Run("until ls -A /mnt/mirror | grep -qE 'varnel|LOGS'; do sleep 0.01; done");
    const std::chrono::milliseconds wait(random() % (pull % 2 == 0 ? 300 : 5000));
    std::this_thread::sleep_for(wait);  // sleeps: until a random moment of the export
    // What is still open on it goes on being written to.
    board.Run("umount -l /mnt/udisk");
    const json told = board.Await(before + 1);
    const bool completed = told.value("state", "") == "completed";
    EXPECT_EQ(completed, !told.contains("reason")) << told;
    const std::string archive = board.Exported("/mnt/mirror");
    EXPECT_TRUE(!completed || !archive.empty()) << wait.count();
    EXPECT_EQ(board.board.Shell("ls -A /mnt/udisk").out, "") << "the printer's own disk";
    board.Unplug("sda");
  }
  const size_t before = board.Told().size();
  board.Plug("sda", "/mnt/udisk", kMirrored);
  EXPECT_EQ(board.Outcome(before).value("state", ""), "completed");
  EXPECT_NE(board.Exported("/mnt/mirror"), "");
  EXPECT_TRUE(
      test::Eventually([&] { return board.board.DaemonCounters().descriptors <= descriptors; }));
}

struct Hostile {
  const char* fill;
  const char* line;
};
const char* const kLink = "Too many levels of symbolic links";
const char* const kOtherKind = "Operation not supported";
const char* const kAction = "unsupported or missing action";
const std::vector<Hostile> kHostile = {
    {"ln -s /userdata/order .maintenance", kLink},
    {"ln -s .maintenance .maintenance", kLink},
    {"ln -s /proc/self .maintenance", kLink},
    {"mkdir .maintenance; ln -s /userdata/order/export_log.json .maintenance", kLink},
    {"mkdir .maintenance; ln -s ../theirs .maintenance/export_log.json", kLink},
    {"mkfifo .maintenance", "Not a directory"},
    {"mkdir .maintenance; mkfifo .maintenance/export_log.json", kOtherKind},
    {"mkdir -p .maintenance/export_log.json", kOtherKind},
    {"mkdir .maintenance; mount -t tmpfs none .maintenance; "
     "cp /userdata/order/export_log.json .maintenance",
     "Invalid cross-device link"},
    {"mkdir .maintenance; truncate -s 4G .maintenance/export_log.json", "File too large"},
    {"mkdir .maintenance; head -c 100000 /dev/zero | tr '\\0' [ > .maintenance/export_log.json",
     "parse error at byte 100001"},
    {"mkdir .maintenance; { head -c 100000 /dev/zero | tr '\\0' [; head -c 100000 /dev/zero | "
     "tr '\\0' ]; } > .maintenance/export_log.json",
     kAction},
    {"mkdir .maintenance; printf '{\"action\": \"export_log\", \"\\377\": 1}' > "
     ".maintenance/export_log.json",
     "parse error at byte 27"},
};
const char* const kActions[] = {"null",
                                "true",
                                "1",
                                "-1e300",
                                "[\"export_log\"]",
                                "{\"action\": \"export_log\"}",
                                "\"\"",
                                R"("export_log\\u0000")",
                                R"("export_log\\n")",
                                "\"EXPORT_LOG\"",
                                "\"../../etc/x\""};

TEST(ExportTest, HostileDrivesGetALineAndNothingElse) {
  ExportBoard board;
  board.Run(
      "mkdir /userdata/order && echo '{\"action\": \"export_log\"}' > "
      "/userdata/order/export_log.json");
  std::vector<std::string> fills(kHostile.size());
  std::transform(kHostile.begin(), kHostile.end(), fills.begin(),
                 [](const Hostile& one) { return one.fill; });
  for (const char* action : kActions) {
    fills.push_back("mkdir .maintenance; printf '{\"action\": " + std::string(action) +
                    "}' > .maintenance/export_log.json");
  }
  const std::string list = "find . -printf '%p %y %s %T@\\n' | sort > /userdata/before-";
  for (size_t i = 0; i < fills.size(); ++i) {
    const std::string name = std::string("sd") + static_cast<char>('a' + i);
    std::string fill = "cp /userdata/order/* theirs; ";
    fill.append(fills[i]).append("; ").append(list).append(name);
    board.Plug(name, "/mnt/" + name, fill);
  }
  // The longest directory that fits into the board's event, of odd characters; and one more.
  const std::string longest =
      "/mnt/a b\t\n\x1b\xff" + std::string(120, 'd') + "/" + std::string(122, 'e');
  ASSERT_EQ(longest.size(), 255U);
  board.Plug("sdy", longest + "e", kOrder);
  board.Plug("sdz", longest,
             kOrder +
                 " && now=$(date +%s) && for i in 0 1 2; do for end in tar.gz json; do "
                 "set -- LOGS_MAINTENANCE_$(date -d @$((now + i)) +%Y%m%d%H%M%S).$end; case $i in "
                 "0) ln -s /userdata/victim $1 ;; 1) mkdir $1 ;; 2) mkfifo $1 ;; esac; done; done");
  const json told = board.Outcome(0);
  EXPECT_EQ(told.value("state", ""), "completed") << told;
  EXPECT_EQ(board.Told().size(), 2U);
  EXPECT_EQ(board.board.Exec({"umount", longest}).status, 0);
  EXPECT_FALSE(fs::exists(board.board.HostPath("/userdata/victim")));
  EXPECT_EQ(board.board
                .Shell("for d in /mnt/sd?; do cd $d; find . -printf '%p %y %s %T@\\n' | sort | "
                       "diff /userdata/before-${d##*/} -; done")
                .out,
            "");

  const std::string log = board.StopAndReadLog();
  const auto count = [&log](const std::string& text) {
    size_t found = 0;
    for (size_t at = 0; (at = log.find(text, at)) != std::string::npos; ++at) ++found;
    return found;
  };
  EXPECT_EQ(count("export_log.json: "), fills.size() + 1) << log;
  EXPECT_EQ(count(std::string("export_log.json: ") + kAction), std::size(kActions) + 1);
  for (const Hostile& one : kHostile) EXPECT_GE(count(one.line), 1U) << one.fill;
  EXPECT_EQ(count("The directory of the drive has 256 bytes, it is not announced"), 1U);
}

}  // namespace
}  // namespace varnel::board
