// Encrypting a file against `openssl enc` doing the same, taking turns, and the memory it takes.
// Options: --directory (in memory, or the disk is measured), --megabytes, --runs.
#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <stdexcept>

#include "support/process.h"
#include "support/report.h"
#include "utils/log.h"
#include "utils/openssl_crypto.h"

namespace {

using namespace varnel::bench;
using varnel::utils::OpenSSLCrypto;
using varnel::utils::SaltMode;
namespace fs = std::filesystem;

constexpr uint32_t kIterations = 983;
constexpr const char* kPassword = "bench";
constexpr const char* kOpenssl = "/usr/bin/openssl";

/// The files of the benchmark; they are large, so they go in any case.
class Files {
 public:
  explicit Files(const fs::path& parent)
      : directory_(parent / ("crypto-bench-" + std::to_string(getpid()))) {
    fs::create_directory(directory_);
    std::ofstream(Password()) << kPassword;
  }
  ~Files() {
    std::error_code ignored;
    fs::remove_all(directory_, ignored);
  }
  Files(const Files&) = delete;
  Files& operator=(const Files&) = delete;

  fs::path Plain() const { return directory_ / "plain"; }
  fs::path Ours() const { return directory_ / "ours"; }
  fs::path Theirs() const { return directory_ / "theirs"; }
  fs::path Password() const { return directory_ / "password"; }

  void WritePlain(int megabytes) const {
    std::mt19937 random(1);
    std::string block(size_t{1} << 20U, '\0');
    for (char& byte : block) byte = static_cast<char>(random());
    std::ofstream file(Plain(), std::ios::binary);
    for (int i = 0; i < megabytes; ++i) file << block;
    if (!file.flush()) throw std::runtime_error("cannot write " + Plain().string());
  }

 private:
  const fs::path directory_;
};

void Openssl(const Files& files, const std::string& direction, const fs::path& input) {
  Run({kOpenssl, "enc", direction, "-aes-256-cbc", "-pbkdf2", "-md", "sha256", "-iter",
       std::to_string(kIterations), "-pass", "file:" + files.Password().string(), "-in", input,
       "-out", files.Theirs()});
}

double Milliseconds(const std::function<void()>& work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
      .count();
}

double PeakMebibytes() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return static_cast<double>(usage.ru_maxrss) / 1024;
}

int Measure(const Options& options) {
  spdlog::set_level(spdlog::level::warn);
  const Files files(options.Text("directory", "/dev/shm"));
  OpenSSLCrypto crypto("bench", kPassword, kIterations, SaltMode::kRandomPerFile, {});
  const auto encrypt = [&] { crypto.EncryptFile(files.Plain(), files.Ours()); };
  files.WritePlain(4);
  encrypt();
  const double peak_before = PeakMebibytes();
  files.WritePlain(options.Number("megabytes", 256));
  std::vector<double> ours;
  std::vector<double> theirs;
  for (int run = 0; run < options.Number("runs", 9); ++run) {
    // Both make a new file.
    fs::remove(files.Ours());
    fs::remove(files.Theirs());
    ours.push_back(Milliseconds(encrypt));
    theirs.push_back(Milliseconds([&] { Openssl(files, "-e", files.Plain()); }));
  }
  Openssl(files, "-d", files.Ours());
  Run({"/usr/bin/cmp", files.Plain(), files.Theirs()});

  Report report;
  report.Figure("encryption, median", Percentile(ours, 0.5), "ms");
  report.Figure("openssl enc, median", Percentile(theirs, 0.5), "ms");
  report.AtMost("encryption, ratio to openssl enc", Percentile(ours, 0.5) / Percentile(theirs, 0.5),
                0.8);
  report.AtMost("encryption: growth of peak memory with the size, MiB",
                PeakMebibytes() - peak_before, 1);
  return report.ExitStatus();
}

}  // namespace

int main(int argc, char** argv) {
  return Guarded(argc, argv, Measure);
}
