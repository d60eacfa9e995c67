#pragma once

#include <sys/types.h>

#include <chrono>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

#include "virtual_board/cloud/cloud_files.h"
#include "virtual_board/common/fd.h"
#include "virtual_board/launcher/layout.h"

namespace varnel::board {

/// A request to a running board or cloud: a JSON array of words, answered by one JSON object, each
/// in a packet of its own. That of a cloud are told in virtual_cloud/control.py; those to the first
/// process of a board:
///
///     start NAME [ARGUMENT...]   starts a service, with other arguments when some are given
///     run NAME COMMAND...        starts another service, which from then on is one like the others
///     signal NAME NUMBER
///     wait NAME                  answers when the service does not run any more
///     status
///     stop                       ends the services in reverse order, then the board
///
/// An answer holds "ok" and the object "services"; one that failed holds "error".
class ControlClient {
 public:
  explicit ControlClient(const Layout& layout);
  explicit ControlClient(const CloudFiles& cloud);

  /// False when none runs in that directory.
  [[nodiscard]] bool Connected() const { return static_cast<bool>(socket_); }
  /// The board's first process, or the cloud's, as the host sees it; 0 when there is none.
  [[nodiscard]] pid_t HostPid() const;
  /// Nothing when no answer came in time.
  std::optional<nlohmann::json> Call(const std::vector<std::string>& words,
                                     std::chrono::milliseconds limit = std::chrono::seconds(10));

 private:
  Fd socket_;
};

/// The other end, listening inside the board; an empty descriptor on failure.
Fd ListenForControl();

/// Connects to a Unix socket whatever the length of its path; an empty descriptor when nobody
/// listens.
Fd ConnectUnix(const std::filesystem::path& path, int type);

constexpr size_t kMaximumControlPacket = 65536;

}  // namespace varnel::board
