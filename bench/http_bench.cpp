// Requests and downloads of the HTTP client against a handle of the library that is kept, taking
// turns. Options: --url of a server that takes POSTs, --posts, --megabytes, --directory, --runs.
#include <arpa/inet.h>
#include <curl/curl.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <thread>

#include "service/cloud/http/file_downloader.h"
#include "service/cloud/http/http_client.h"
#include "support/report.h"
#include "support/turns.h"
#include "utils/owned.h"

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

/// Sends a body of zeros to whoever comes.
class BodyServer {
 public:
  explicit BodyServer(int megabytes) : megabytes_(megabytes), listener_(Listen()) {}
  ~BodyServer() {
    ::shutdown(listener_.Get(), SHUT_RDWR);
    thread_.join();
  }
  BodyServer(const BodyServer&) = delete;
  BodyServer& operator=(const BodyServer&) = delete;

  std::string Url() const {
    sockaddr_in address{};
    socklen_t size = sizeof(address);
    ::getsockname(listener_.Get(), reinterpret_cast<sockaddr*>(&address), &size);
    return "http://127.0.0.1:" + std::to_string(::ntohs(address.sin_port)) + "/file";
  }

 private:
  static int Listen() {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = ::htonl(INADDR_LOOPBACK);
    Check(::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0, "bind");
    Check(::listen(fd, 8) == 0, "listen");
    return fd;
  }
  void Serve() const {
    for (int fd = 0; (fd = ::accept(listener_.Get(), nullptr, nullptr)) >= 0;)
      Answer(utils::UniqueFd(fd));
  }
  void Answer(const utils::UniqueFd& peer) const {
    const std::string block(size_t{1} << 20U, '\0');
    std::string request(4096, '\0');
    if (::recv(peer.Get(), request.data(), request.size(), 0) <= 0) return;
    std::string head = "HTTP/1.1 200 OK\r\nConnection: close\r\nContent-Length: " +
                       std::to_string(block.size() * static_cast<size_t>(megabytes_)) + "\r\n\r\n";
    (void)::send(peer.Get(), head.data(), head.size(), MSG_NOSIGNAL);
    for (int i = 0; i < megabytes_ && SendAll(peer, block); ++i) {
    }
  }
  static bool SendAll(const utils::UniqueFd& peer, const std::string& block) {
    size_t sent = 0;
    while (sent < block.size()) {
      const ssize_t now =
          ::send(peer.Get(), block.data() + sent, block.size() - sent, MSG_NOSIGNAL);
      if (now <= 0) return false;
      sent += static_cast<size_t>(now);
    }
    return true;
  }

  const int megabytes_;
  const utils::UniqueFd listener_;
  std::jthread thread_{[this] { Serve(); }};
};

size_t WriteToFile(char* data, size_t, size_t size, void* file) {
  return static_cast<std::ofstream*>(file)->write(data, static_cast<std::streamsize>(size)) ? size
                                                                                            : 0;
}

void Download(Report& report, const Options& options) {
  const BodyServer server(options.Number("megabytes", 256));
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
