// A test program on the network of a board of its own: any MQTT library reaches the broker at
// 127.0.0.1.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "board/board.h"
#include "virtual_board/common/fd.h"

namespace varnel::board {
namespace {

bool BrokerAnswers() {
  const Fd socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(1883);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return ::connect(socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

TEST(BoardNetworkTest, LoopbackIsTheBoardsAndTheRestIsTheHosts) {
  const Board& board = TheBoard();
  EXPECT_TRUE(BrokerAnswers());
  ASSERT_TRUE(board.KillBroker());
  EXPECT_FALSE(BrokerAnswers());
  ASSERT_TRUE(board.StartBroker());
  EXPECT_TRUE(BrokerAnswers());
  EXPECT_EQ(board.Exec({"cat", "/proc/uptime"}).out, "41.75 160.20\n");
  EXPECT_TRUE(std::filesystem::exists(board.HostPath("/userdata")));
  EXPECT_EQ(board.Processes().size(), 2U);
}

}  // namespace
}  // namespace varnel::board

int main(int argc, char** argv) {
  return varnel::board::RunInsideBoard(argc, argv, varnel::board::BootOptions());
}
