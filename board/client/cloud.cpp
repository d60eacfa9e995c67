#include "virtual_board/client/cloud.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include "virtual_board/client/json_lines.h"
#include "virtual_board/common/await.h"
#include "virtual_board/common/fd.h"
#include "virtual_board/common/files.h"
#include "virtual_board/common/process.h"
#include "virtual_board/launcher/control.h"

namespace varnel::board {

namespace fs = std::filesystem;
using nlohmann::json;
using namespace std::chrono_literals;

namespace {

constexpr auto kStartLimit = 20s;
constexpr auto kCommandLimit = 30s;

}  // namespace

Cloud::Cloud(const fs::path& directory)
    : temporary_(directory.empty()),
      files_(temporary_ ? NewTemporaryDirectory("varnel-cloud") : directory) {
  Launch();
}

Cloud::Cloud(Attached, const fs::path& directory) : files_(directory) {}

std::unique_ptr<Cloud> Cloud::Attach(const fs::path& directory) {
  return std::unique_ptr<Cloud>(new Cloud(Attached{}, directory));
}

void Cloud::Launch() {
  process_ = StartChild({VARNEL_BOARD_PROGRAM, "cloud", files_.Root()});
  const auto up = [&] { return ControlClient(files_).Connected(); };
  if (Await(kStartLimit, [&] { return up() || HasEnded(process_); }) && up()) return;
  End();
  throw std::runtime_error("the cloud did not come up");
}

Cloud::~Cloud() {
  if (process_ != 0) End();
}

void Cloud::End() const {
  ::kill(process_, SIGTERM);
  AwaitChild(process_);
  std::error_code error;
  if (temporary_) fs::remove_all(files_.Root(), error);
}

void Cloud::SetFaults(const std::string& text) const {
  if (!EditFile(files_.Faults(), [&](const std::string&) { return text; })) {
    throw std::runtime_error("the cloud's fault file cannot be written");
  }
  const json answer = Tell({"settle"});
  if (!answer.at("nonsense").empty()) {
    throw std::runtime_error("no faults of the cloud: " + answer.at("nonsense").dump());
  }
}

std::string Cloud::Faults() const {
  return ReadFile(files_.Faults());
}

std::vector<json> Cloud::Journal() const {
  std::streamoff from = 0;
  return JsonLines(files_.Journal(), from);
}

std::vector<json> Cloud::Requests(const std::string& path, const std::string& device) const {
  std::vector<json> entries = Journal();
  std::erase_if(entries, [&](const json& entry) {
    return entry.at("event") != "request" || entry.at("path") != path ||
           (!device.empty() && entry.value("device", entry.value("board", "")) != device);
  });
  return entries;
}

std::optional<json> Cloud::AwaitEntry(const std::function<bool(const json&)>& fits,
                                      std::chrono::milliseconds limit) const {
  std::optional<json> found;
  std::streamoff from = 0;
  Await(limit, [&] {
    const auto entries = JsonLines(files_.Journal(), from);
    const auto first = std::find_if(entries.begin(), entries.end(), fits);
    if (first != entries.end()) found = *first;
    return found.has_value();
  });
  return found;
}

json Cloud::Tell(const std::vector<std::string>& words) const {
  auto answer = ControlClient(files_).Call(words, kCommandLimit);
  if (!answer) throw std::runtime_error("the cloud does not answer " + words.at(0));
  if (!answer->value("ok", false)) throw std::runtime_error(answer->value("error", "refused"));
  return std::move(*answer);
}

void Cloud::Bind(const std::string& device, const std::string& user_id,
                 const std::string& user) const {
  Tell({"bind", device, user_id, user});
}

json Cloud::Device(const std::string& device) const {
  return Tell({"device", device}).at("device");
}

void Cloud::SetCertificateLife(std::chrono::seconds life) const {
  Tell({"certificate-life", std::to_string(life.count())});
}

json Cloud::Publish(const fs::path& firmware, const json& description) const {
  return Tell({"publish", fs::absolute(firmware), description.dump()});
}

void Cloud::SetUrlLife(std::chrono::seconds life) const {
  Tell({"url-life", std::to_string(life.count())});
}

std::vector<std::string> Cloud::Secrets() const {
  std::ifstream file(files_.Secrets());
  return {std::istream_iterator<std::string>(file), {}};
}

MqttLink Cloud::Link(const std::string& client_id) const {
  const Fd socket = ConnectUnix(files_.BrokerSocket(), SOCK_STREAM);
  if (!socket) throw std::runtime_error("the cloud has no broker");
  return {::fcntl(socket.Get(), F_DUPFD_CLOEXEC, 0), client_id};
}

}  // namespace varnel::board
