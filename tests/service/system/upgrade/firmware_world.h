#pragma once

#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "service/cloud/scripted_server.h"
#include "service/system/upgrade/firmware_download.h"
#include "support/fake_clock.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace varnel::service {

/// One answer of a package server, to be spoilt.
struct PackageAnswer {
  std::string status = "200 OK";
  std::string etag{};
  std::string range{};  ///< value of Content-Range; empty: none
  std::string more{};   ///< header lines
  std::string body{};
  std::optional<size_t> announced{};  ///< Content-Length; nothing: the body's, npos: none
  size_t sends = std::string::npos;   ///< bytes of the body, then the connection ends
  bool resets = false;
  bool silent = false;
};

/// A store, a package server that knows ranges, and downloads between them.
class FirmwareWorld {
 public:
  using Fault = std::function<void(PackageAnswer& answer)>;

  static constexpr size_t kSyncBytes = 16'384;

  explicit FirmwareWorld(size_t size = 100'000);

  DownloadOutcome Download();
  /// The faults of the next answers, one each.
  void Spoil(std::vector<Fault> faults);
  /// How requests for "/description" are answered.
  void Describe(test::ScriptedServer::Script script);
  [[nodiscard]] std::string Url(const std::string& path) const { return server_.Url(path); }
  [[nodiscard]] std::string Stored() const;
  /// All names in the directory.
  [[nodiscard]] std::vector<std::string> Names() const;

  test::LogCapture log;
  test::TempDir dir;
  test::FakeClock clock;
  std::string package;
  std::string etag = "\"v1\"";
  FirmwareDescription description;
  FirmwareStore store{dir.Path()};
  FirmwareCheck check;
  RangedDownloader http{nullptr, clock};
  uint64_t min_free_bytes = 0;
  std::vector<int> percents;
  std::vector<std::chrono::milliseconds> pauses;
  int fresh_urls = 0;
  size_t sent = 0;  ///< bytes of bodies

 private:
  bool Serve(const std::string& request, const test::ScriptedServer::Peer& peer);
  PackageAnswer AnswerTo(const std::string& request) const;

  std::mutex mutex_;
  std::deque<Fault> faults_;               // mutex_
  test::ScriptedServer::Script describe_;  // mutex_
  test::ScriptedServer server_{
      [this](const auto& request, const auto& peer) { return Serve(request, peer); }};
};

/// In lower-case digits.
std::string Md5Of(const std::string& bytes);

}  // namespace varnel::service
