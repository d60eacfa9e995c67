// Requests and downloads of the HTTP client against a handle of the library that is kept, taking
// turns. Options: --url of a server that takes POSTs, --posts, --megabytes, --directory, --runs.
#include <curl/curl.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>

#include "service/cloud/http/file_downloader.h"
#include "service/cloud/http/http_client.h"
#include "support/loopback_servers.h"
#include "support/report.h"
#include "support/turns.h"

namespace {

using namespace varnel;
using namespace varnel::bench;
namespace fs = std::filesystem;

size_t Swallow(char*, size_t, size_t size, void*) {
  return size;
}

void Posts(Report& report, const Options& options) {
  const std::string url = options.Text("url");
  const int count = options.Number("posts", 1000);
  const nlohmann::json document = {{"text", std::string(1000, 'x')}};
  const std::string body = document.dump();
  service::HttpClient client;
  const service::CurlHandle kept(curl_easy_init());
  const service::CurlHeaders type(curl_slist_append(nullptr, "Content-Type: application/json"));
  curl_easy_setopt(kept.get(), CURLOPT_URL, url.c_str());
  curl_easy_setopt(kept.get(), CURLOPT_HTTPHEADER, type.get());
  curl_easy_setopt(kept.get(), CURLOPT_POSTFIELDS, body.c_str());
  curl_easy_setopt(kept.get(), CURLOPT_WRITEFUNCTION, Swallow);
  const auto ours = [&] {
    for (int i = 0; i < count / 10; ++i) Check(client.Post(url, document).status != 0, "our POST");
  };
  const auto theirs = [&] {
    for (int i = 0; i < count / 10; ++i)
      Check(curl_easy_perform(kept.get()) == CURLE_OK, "the library's POST");
  };
  CompareInTurns(report, "100 POSTs of 1 KiB over TLS", 10, 1.3, ours, theirs);
}

size_t WriteToFile(char* data, size_t, size_t size, void* file) {
  return static_cast<std::ofstream*>(file)->write(data, static_cast<std::streamsize>(size)) ? size
                                                                                            : 0;
}

void Download(Report& report, const Options& options) {
  const LoopbackServer server(SendZeros(int64_t{options.Number("megabytes", 256)} << 20U));
  const fs::path file = fs::path(options.Text("directory", "/tmp")) / "http-bench";
  service::FileDownloader downloader("bench");
  const auto ours = [&] {
    Check(downloader.Download(server.Url(), file, nullptr, 30) == 0, "our download");
  };
  const auto theirs = [&] {
    std::ofstream out(file, std::ios::binary);
    const service::CurlHandle handle(curl_easy_init());
    const std::string url = server.Url();
    curl_easy_setopt(handle.get(), CURLOPT_URL, url.c_str());
    curl_easy_setopt(handle.get(), CURLOPT_WRITEFUNCTION, WriteToFile);
    curl_easy_setopt(handle.get(), CURLOPT_WRITEDATA, &out);
    Check(curl_easy_perform(handle.get()) == CURLE_OK, "the library's download");
  };
  CompareInTurns(report, "download of 256 MB", options.Number("runs", 7), 1.1, ours, theirs);
  std::error_code ignored;
  fs::remove(file, ignored);
}

int Measure(const Options& options) {
  service::InitCurl();
  Report report;
  Posts(report, options);
  Download(report, options);
  return report.ExitStatus();
}

}  // namespace

int main(int argc, char** argv) {
  return Guarded(argc, argv, Measure);
}
