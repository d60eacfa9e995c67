#include "board/served_board.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <fstream>
#include <stdexcept>

#include "virtual_board/common/files.h"

namespace varnel::board {

using nlohmann::json;

ServedBoard::Preparation WithDeployment(const std::string& settings) {
  return [settings](const Board& board) {
    std::ofstream(board.HostPath("/etc/varnel/deployment.json")) << settings;
  };
}

ServedBoard::ServedBoard(BootOptions options, const Preparation& prepare)
    : board(std::move(options)), rpc(board) {
  if (prepare) prepare(board);
  if (!board.StartDaemon()) throw std::runtime_error("the daemon does not start");
}

ServedBoard::~ServedBoard() {
  for (const std::string& problem : rpc.Problems()) ADD_FAILURE() << problem;
}

json ServedBoard::Photo(const std::string& path, int64_t timestamp) {
  return rpc.Call("camera.take_a_photo",
                  {{"reason", "debug"}, {"filepath", path}, {"timestamp", timestamp}});
}

json ServedBoard::PostPhoto(const std::string& path) {
  return rpc.Post("camera.take_a_photo", {{"reason", "debug"}, {"filepath", path}});
}

std::string ServedBoard::File(const std::string& inside) const {
  return ReadFile(board.HostPath(inside));
}

void ServedBoard::Restart() {
  (void)StopAndReadLog();
  if (!board.StartDaemon() || !rpc.AwaitDaemon()) throw std::runtime_error("no restart");
}

std::string ServedBoard::StopAndReadLog() {
  if (!board.SignalDaemon(SIGTERM) || board.AwaitDaemonEnd() != 0) {
    throw std::runtime_error("the daemon did not end in order");
  }
  return board.DaemonLog();
}

bool IsWholeJpeg(const std::string& bytes) {
  return bytes.starts_with("\xFF\xD8\xFF") && bytes.ends_with("\xFF\xD9");
}

bool IsWholePng(const std::string& bytes) {
  return bytes.starts_with("\x89PNG\r\n\x1A\n") &&
         bytes.ends_with(std::string("\0\0\0\0IEND\xAE\x42\x60\x82", 12));
}

}  // namespace varnel::board
