#pragma once

#include <sys/types.h>

#include <map>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

namespace varnel::board {

/// A program that the board's first process runs and watches. Its output goes to /var/log/NAME.log.
class Service {
 public:
  using Environment = std::map<std::string, std::string>;

  /// @param environment added to that of the board
  Service(std::string name, std::vector<std::string> command, Environment environment = {});

  [[nodiscard]] const std::string& Name() const { return name_; }
  [[nodiscard]] pid_t Pid() const { return pid_; }
  [[nodiscard]] bool Running() const { return pid_ > 0; }

  /// False when it runs already or no process could be made. Other arguments are kept for later
  /// starts.
  bool Start(const std::vector<std::string>& arguments);
  [[nodiscard]] bool Signal(int number) const;
  /// Its process was waited for.
  void Ended(int wait_status);

  /// {"state": "stopped"}, {"state": "running", "pid": 3}, {"state": "exited", "status": 0} or
  /// {"state": "killed", "signal": 9}
  [[nodiscard]] nlohmann::json Describe() const;

 private:
  [[noreturn]] void Become(char* const* command, int log) const;

  std::string name_;
  std::vector<std::string> command_;
  Environment environment_;
  pid_t pid_ = 0;
  bool ended_ = false;
  int wait_status_ = 0;
};

}  // namespace varnel::board
