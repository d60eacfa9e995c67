// An archive onto a drive: written aside, synced, read back and named, against cp, sync -f and two
// sha256sum. Options: --directory (of the disk), --megabytes, --runs.
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <string>

#include "service/system/export/drive_writer.h"
#include "support/caller.h"
#include "support/process.h"
#include "support/turns.h"
#include "utils/log.h"

namespace {

using namespace varnel::bench;
namespace fs = std::filesystem;

void WriteNoise(const fs::path& file, int megabytes) {
  std::mt19937_64 random(7);
  std::ofstream out(file, std::ios::binary);
  std::string piece(size_t{1} << 20U, '\0');
  for (int i = 0; i < megabytes; ++i) {
    for (char& c : piece) c = static_cast<char>(random());
    out << piece;
  }
  Check(static_cast<bool>(out.flush()), "the archive");
}

void Export(const fs::path& archive, const fs::path& directory) {
  std::error_code error;
  const auto drive = varnel::utils::HeldDirectory::OpenWithoutLinks(directory, error);
  Check(drive.has_value(), "the drive");
  const varnel::service::DriveWriter writer(*drive, [] { return false; });
  Check(!writer.Write(archive, {"a"}), "the export");
  fs::remove(directory / "a.tar.gz");
  fs::remove(directory / "a.json");
}

void ByHand(const fs::path& archive, const fs::path& directory) {
  const fs::path copy = directory / "a.tar.gz";
  Run({"/usr/bin/cp", archive, copy});
  Run({"/usr/bin/sync", "-f", copy});
  Run({"/usr/bin/sha256sum", archive});
  Run({"/usr/bin/sha256sum", copy});
  fs::remove(copy);
}

int Measure(const Options& options) {
  spdlog::set_level(spdlog::level::off);
  Report report;
  const fs::path root = fs::path(options.Text("directory", "/userdata")) /
                        ("export-bench-" + std::to_string(getpid()));
  fs::create_directories(root / "drive");
  WriteNoise(root / "archive", static_cast<int>(options.Number("megabytes", 64)));
  CompareInTurns(
      report, "export against cp, sync -f, sha256sum twice", options.Number("runs", 5), 1.5,
      [&] { Export(root / "archive", root / "drive"); },
      [&] { ByHand(root / "archive", root / "drive"); });
  fs::remove_all(root);
  return report.ExitStatus();
}

}  // namespace

int main(int argc, char** argv) {
  return Guarded(argc, argv, Measure);
}
