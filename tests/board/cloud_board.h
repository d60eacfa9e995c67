#pragma once

#include <string>
#include <vector>

#include "board/run_inside.h"
#include "board/served_board.h"
#include "virtual_board/client/cloud.h"
#include "virtual_board/client/cloud_caller.h"

namespace varnel::board {

/// The cloud of this program's boards.
Cloud& TheCloud();

/// A board of the cloud, and a client in the cloud that calls it.
class CloudBoard : public ServedBoard {
 public:
  /// Without a camera the start is quick.
  explicit CloudBoard(const BootOptions& more = {}, bool camera = false);
  /// What broke the contract in the cloud is a failure of the running test.
  ~CloudBoard();

  /// Calls "mqtt_agent.<method>" on the board.
  nlohmann::json Ask(const std::string& method, const nlohmann::json& params = nullptr);
  /// What local clients are told of the link.
  std::string Status();
  bool Await(const std::string& status);
  void Join(const std::string& region = "int");
  /// Ends it at once and starts it again.
  void KillAndStart();
  /// The states that local clients were told of, without repetitions.
  [[nodiscard]] std::vector<std::string> States() const;
  /// How many came to the cloud's API.
  [[nodiscard]] size_t Requests(const std::string& path) const;
  /// Waits for a line of the log.
  /// @param from how much of the log is old
  [[nodiscard]] bool AwaitLog(const std::string& text, size_t from = 0) const;

  /// Of all that stood in an address or was a token: in the log, files and command lines.
  void ExpectNoSecretLeft() const;

  const std::string serial;
  CloudCaller client;
};

}  // namespace varnel::board
