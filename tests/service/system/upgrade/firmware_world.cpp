#include "service/system/upgrade/firmware_world.h"

#include <fmt/format.h>
#include <openssl/evp.h>

#include <algorithm>
#include <random>

namespace varnel::service {
namespace {

std::string RandomBytes(size_t size) {
  std::mt19937 random(1);
  std::string bytes(size, '\0');
  for (char& byte : bytes) byte = static_cast<char>(random());
  return bytes;
}

std::string HeaderIn(const std::string& request, const std::string& name) {
  const size_t at = request.find("\r\n" + name + ": ");
  if (at == request.npos) return {};
  const size_t begin = at + name.size() + 4;
  return request.substr(begin, request.find("\r\n", begin) - begin);
}

}  // namespace

std::string Md5Of(const std::string& bytes) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned size = 0;
  EVP_Digest(bytes.data(), bytes.size(), digest, &size, EVP_md5(), nullptr);
  std::string text;
  for (unsigned i = 0; i < size; ++i) text += fmt::format("{:02x}", digest[i]);
  return text;
}

FirmwareWorld::FirmwareWorld(size_t size)
    : package(RandomBytes(size)),
      description{.version = "2", .fullversion = "2.0.0", .size = size, .md5 = Md5Of(package)} {
  if (!store.Prepare()) throw std::runtime_error("no store");
}

DownloadOutcome FirmwareWorld::Download() {
  FirmwareDownload download(
      {.http = &http,
       .store = &store,
       .check = &check,
       .min_free_bytes = min_free_bytes,
       .sync_bytes = kSyncBytes,
       .progress = [this](int percent, int64_t, int64_t) { percents.push_back(percent); },
       .fresh_url = [this]() -> std::optional<std::string> {
         ++fresh_urls;
         return server_.Url("/fresh");
       },
       .pause =
           [this](std::chrono::milliseconds time) {
             pauses.push_back(time);
             return true;
           }},
      description);
  return download.Run(server_.Url("/package"));
}

void FirmwareWorld::Spoil(std::vector<Fault> faults) {
  const std::lock_guard lock(mutex_);
  faults_.assign(faults.begin(), faults.end());
}

void FirmwareWorld::Describe(test::ScriptedServer::Script script) {
  const std::lock_guard lock(mutex_);
  describe_ = std::move(script);
}

std::string FirmwareWorld::Stored() const {
  return test::ReadFile(store.Firmware(description.fullversion));
}

std::vector<std::string> FirmwareWorld::Names() const {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(store.Directory()))
    names.push_back(entry.path().filename());
  std::sort(names.begin(), names.end());
  return names;
}

PackageAnswer FirmwareWorld::AnswerTo(const std::string& request) const {
  PackageAnswer answer;
  answer.etag = etag;
  answer.body = package;
  const std::string range = HeaderIn(request, "Range");
  if (range.empty() || HeaderIn(request, "If-Range") != etag) return answer;
  const size_t first = std::stoul(range.substr(std::string("bytes=").size()));
  answer.status = "206 Partial Content";
  answer.range = fmt::format("bytes {}-{}/{}", first, package.size() - 1, package.size());
  answer.body = package.substr(first);
  return answer;
}

bool FirmwareWorld::Serve(const std::string& request, const test::ScriptedServer::Peer& peer) {
  std::unique_lock lock(mutex_);
  if (request.starts_with("GET /description")) {
    const auto describe = describe_;
    lock.unlock();
    return describe(request, peer);
  }
  PackageAnswer answer = AnswerTo(request);
  if (!faults_.empty()) {
    faults_.front()(answer);
    faults_.pop_front();
  }
  if (answer.silent) {
    clock.Advance(std::chrono::seconds(16));
    peer.AwaitEnd();
    return false;
  }
  const std::string body = answer.body.substr(0, answer.sends);
  std::string head = "HTTP/1.1 " + answer.status + "\r\nETag: " + answer.etag + "\r\n";
  if (!answer.range.empty()) head += "Content-Range: " + answer.range + "\r\n";
  const size_t announced = answer.announced.value_or(answer.body.size());
  if (announced != std::string::npos) head += fmt::format("Content-Length: {}\r\n", announced);
  sent += body.size();
  if (answer.resets) peer.ResetAtEnd();
  (void)peer.Send(head + answer.more + "\r\n" + body);
  return false;
}

}  // namespace varnel::service
