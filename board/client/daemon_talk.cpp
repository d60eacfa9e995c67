#include "virtual_board/client/daemon_talk.h"

#include <fcntl.h>
#include <sys/socket.h>

#include <ctime>
#include <stdexcept>
#include <thread>

#include "virtual_board/common/files.h"
#include "virtual_board/launcher/control.h"

namespace varnel::board {

using std::chrono::milliseconds;
using std::chrono::system_clock;

std::string DaemonConsole::Whole() const {
  return ReadFile(board_.Paths().Log() / "daemon.log");
}

std::string DaemonConsole::Tail() const {
  constexpr size_t kTail = 4000;
  const std::string text = Text();
  return text.substr(text.size() - std::min(text.size(), kTail));
}

size_t DaemonConsole::Count(const std::string& text) const {
  const std::string all = Text();
  size_t count = 0;
  for (size_t at = all.find(text); at != std::string::npos; at = all.find(text, at + 1)) ++count;
  return count;
}

bool DaemonConsole::AwaitText(const std::string& text, milliseconds limit) const {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (Count(text) == 0) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(milliseconds(5));
  }
  return true;
}

std::optional<system_clock::time_point> DaemonConsole::TimeOf(const std::string& text) const {
  const std::string all = Text();
  const size_t at = all.find(text);
  if (at == std::string::npos) return std::nullopt;
  const size_t line = all.rfind('\n', at);
  const std::string stamp = all.substr(line == std::string::npos ? 0 : line + 1, 25);
  std::tm time{};
  const char* rest = ::strptime(stamp.c_str(), "[%Y-%m-%d %H:%M:%S.", &time);
  if (rest == nullptr) return std::nullopt;
  // A board knows no time zone.
  return system_clock::from_time_t(::timegm(&time)) + milliseconds(std::stoi(rest));
}

MqttLink LinkTo(const Board& board, const std::string& client_id) {
  const Fd socket = ConnectUnix(board.Paths().BrokerSocket(), SOCK_STREAM);
  if (!socket) throw std::runtime_error("no broker");
  return {::fcntl(socket.Get(), F_DUPFD_CLOEXEC, 0), client_id};
}

const Contract& DaemonContract() {
  static const Contract contract = Contract::Load(VARNEL_CONTRACT);
  return contract;
}

}  // namespace varnel::board
