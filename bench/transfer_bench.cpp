// Firmware from a server to the disk and files to a store, against the plain programs that do the
// same, and the memory that they take. Options: --memory, a directory of a tmpfs; --disk, one with
// room for --gigabytes (4); --megabytes, --runs.
#include <curl/curl.h>
#include <openssl/evp.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <nlohmann/json.hpp>

#include "service/cloud/upload/cloud_upload.h"
#include "service/system/upgrade/firmware_download.h"
#include "support/loopback_servers.h"
#include "support/process.h"
#include "support/report.h"
#include "support/turns.h"
#include "utils/owned.h"

namespace {

using namespace varnel;
using namespace varnel::bench;
using nlohmann::json;
namespace fs = std::filesystem;

using Md5 = utils::Owned<EVP_MD_CTX, EVP_MD_CTX_free>;

Md5 NewMd5() {
  Md5 md5(EVP_MD_CTX_new());
  Check(EVP_DigestInit_ex(md5.get(), EVP_md5(), nullptr) == 1, "MD5");
  return md5;
}

service::FirmwareDescription ZeroFirmware(int64_t bytes) {
  const std::string block(size_t{1} << 20U, '\0');
  service::FirmwareDigest digest(false);
  Check(digest.Begin(), "MD5");
  for (int64_t done = 0; done < bytes; done += static_cast<int64_t>(block.size()))
    digest.Add(block.data(), block.size());
  service::FirmwareDescription description;
  description.fullversion = "bench";
  description.size = static_cast<uint64_t>(bytes);
  description.md5 = digest.End().md5;
  return description;
}

/// Ours: fetched, on the disk, and found to be what was described.
void FetchFirmware(const std::string& url, const fs::path& directory,
                   const service::FirmwareDescription& description) {
  const service::FirmwareStore store(directory);
  Check(store.Prepare(), "the directory");
  service::FirmwareCheck check;
  service::RangedDownloader http(nullptr);
  service::FirmwareDownload download({.http = &http,
                                      .store = &store,
                                      .check = &check,
                                      .progress = [](int, int64_t, int64_t) {},
                                      .fresh_url = [] { return std::nullopt; },
                                      .pause = [](std::chrono::milliseconds) { return false; }},
                                     description);
  Check(download.Run(url) == service::DownloadOutcome::kSuccess, "our download");
  fs::remove(store.Firmware(description.fullversion));
}

struct PlainSink {
  std::ofstream file;
  Md5 md5 = NewMd5();
};

size_t TakePlain(char* data, size_t, size_t size, void* given) {
  auto& sink = *static_cast<PlainSink*>(given);
  EVP_DigestUpdate(sink.md5.get(), data, size);
  return sink.file.write(data, static_cast<std::streamsize>(size)) ? size : 0;
}

void FetchPlain(const std::string& url, const fs::path& file) {
  PlainSink sink{std::ofstream(file, std::ios::binary)};
  const service::CurlHandle handle(curl_easy_init());
  curl_easy_setopt(handle.get(), CURLOPT_URL, url.c_str());
  curl_easy_setopt(handle.get(), CURLOPT_WRITEFUNCTION, TakePlain);
  curl_easy_setopt(handle.get(), CURLOPT_WRITEDATA, &sink);
  Check(curl_easy_perform(handle.get()) == CURLE_OK, "the library's download");
  sink.file.close();
  fs::remove(file);
}

void Download(Report& report, const Options& options) {
  const int64_t bytes = int64_t{options.Number("megabytes", 256)} << 20U;
  const fs::path directory = options.Text("memory");
  const LoopbackServer server(SendZeros(bytes));
  const auto description = ZeroFirmware(bytes);
  const double ratio = MeasureInTurns(
      report, "firmware of 256 MB with MD5", options.Number("runs", 9),
      [&] { FetchFirmware(server.Url(), directory, description); },
      [&] { FetchPlain(server.Url(), directory / "plain"); });
  report.AtLeast("firmware of 256 MB with MD5, rate, ratio", 1 / ratio, 1.5);
}

void SecondCheck(Report& report, const Options& options) {
  const fs::path file = fs::path(options.Text("memory")) / "checked";
  const int64_t bytes = int64_t{options.Number("megabytes", 256)} << 20U;
  std::ofstream(file).close();
  fs::resize_file(file, static_cast<uintmax_t>(bytes));
  const auto description = ZeroFirmware(bytes);
  std::optional<service::FirmwareCheck> check;
  const auto look = [&] { Check(check->CheckFirmwareFile(file, description), "the check"); };
  CompareInTurns(report, "second check of 256 MB against the first", 5, 0.1, look, [&] {
    check.emplace();
    look();
  });
  fs::remove(file);
}

/// An API that gives every part the same address.
service::UploadApi ApiOf(const std::string& url) {
  return {
      [] { return true; },
      [url](const std::string& path, const json& document, const service::RequestOptions&) {
        if (path != service::kUploadCreate)
          return json{{"code", 200}, {"data", {{"url", url}}}}.dump();
        json parts = json::array();
        for (const json& part : document.at("uploadParts"))
          parts.push_back({{"partNumber", part.at("partNumber")}, {"url", url}});
        return json{{"code", 200}, {"data", {{"uploadId", "1"}, {"uploadParts", parts}}}}.dump();
      }};
}

void Send(const std::string& url, const fs::path& file) {
  service::CloudUpload upload(ApiOf(url));
  Check(upload.Upload({.file = file, .name = "bench"}).has_value(), "our upload");
}

/// Nothing is stored: it is read as zeros.
void MakeHole(const fs::path& file, int64_t bytes) {
  std::ofstream(file).close();
  fs::resize_file(file, static_cast<uintmax_t>(bytes));
}

void Upload(Report& report, const Options& options) {
  const fs::path file = fs::path(options.Text("memory")) / "sent";
  MakeHole(file, int64_t{options.Number("megabytes", 256)} << 20U);
  const LoopbackServer sink(SwallowPuts());
  const std::string url = sink.Url();
  CompareInTurns(
      report, "upload of 256 MB in parts", options.Number("runs", 9), 1.15,
      [&] { Send(url, file); },
      [&] {
        Run({"/usr/bin/openssl", "dgst", "-sha256", file});
        Run({"/usr/bin/curl", "-s", "-T", file, url});
      });
  fs::remove(file);
}

/// The most memory, in MiB, that a process of its own takes for a job.
double PeakOf(const std::function<void()>& job) {
  const pid_t child = ::fork();
  if (child == 0) {
    int status = 1;
    try {
      job();
      status = 0;
    } catch (const std::exception& error) {
      std::fprintf(stderr, "%s\n", error.what());
    }
    ::_exit(status);
  }
  int status = 0;
  rusage used{};
  Check(::wait4(child, &status, 0, &used) == child && status == 0, "the measured process");
  return static_cast<double>(used.ru_maxrss) / 1024;
}

/// The server stays here: only the job is measured.
double PeakAgainst(const LoopbackServer::Serve& serve,
                   const std::function<void(const std::string& url)>& job) {
  const LoopbackServer server(serve);
  return PeakOf([&, url = server.Url()] { job(url); });
}

void Memory(Report& report, const Options& options) {
  const fs::path directory = options.Text("disk");
  const int64_t large = int64_t{options.Number("gigabytes", 4)} << 30U;
  const int64_t small = int64_t{64} << 20U;
  const auto fetch = [&](int64_t bytes) {
    const auto description = ZeroFirmware(bytes);
    return PeakAgainst(SendZeros(bytes),
                       [&](const std::string& url) { FetchFirmware(url, directory, description); });
  };
  const auto send = [&](int64_t bytes) {
    const fs::path file = directory / "sent";
    MakeHole(file, bytes);
    const double peak =
        PeakAgainst(SwallowPuts(), [&](const std::string& url) { Send(url, file); });
    fs::remove(file);
    return peak;
  };
  const auto compare = [&](const std::string& name, const auto& job) {
    const double base = job(small);
    report.Figure(name + " of 64 MiB, peak memory", base, "MiB");
    report.AtMost(name + " of 4 GiB, peak memory above that", job(large) - base, 8);
  };
  compare("firmware", fetch);
  compare("upload", send);
}

int Measure(const Options& options) {
  service::InitCurl();
  Report report;
  Memory(report, options);  // first: a forked process begins with our size
  Download(report, options);
  SecondCheck(report, options);
  Upload(report, options);
  return report.ExitStatus();
}

}  // namespace

int main(int argc, char** argv) {
  return Guarded(argc, argv, Measure);
}
