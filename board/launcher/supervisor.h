#pragma once

#include <chrono>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "virtual_board/common/fd.h"
#include "virtual_board/launcher/service.h"

namespace varnel::board {

/// The first process of a board: starts and watches its services, takes requests (control.h),
/// writes the system log and buries orphans. When it ends the kernel ends everything else inside.
/// One thread.
class Supervisor {
 public:
  /// Runs until it is told to stop; the exit status of the board.
  int Run();

 private:
  struct Waiter {
    Fd client;
    std::string service;
  };

  bool SetUp();
  void LoadServices();
  void Step(int timeout_ms);
  void TakeSignals();
  void BuryChildren();
  void AnswerWaiters();
  void TakeLogMessage() const;
  void AcceptClient();
  /// False when the client is gone.
  bool ServeClient(Fd& client);
  void ServeClients(const std::vector<int>& readable);

  nlohmann::json Handle(const std::vector<std::string>& words);
  /// What went wrong, or "".
  std::string Obey(const std::vector<std::string>& words);
  std::string RunService(const std::string& name, const std::vector<std::string>& command);
  [[nodiscard]] nlohmann::json Status() const;
  Service* Find(const std::string& name);
  void StopServices();
  bool EndService(Service& service, int signal, std::chrono::milliseconds limit);

  std::vector<Service> services_;
  std::vector<Fd> clients_;
  std::vector<Waiter> waiters_;
  Fd signals_;
  Fd control_;
  Fd system_log_;
  bool stopping_ = false;
};

}  // namespace varnel::board
