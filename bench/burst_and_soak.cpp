// Nothing may get lost, doubled or mixed up: bursts that fit the daemon's queue, bursts that do
// not, and a long soak during which the daemon may not grow. Options: --daemon-pid, --log-dir,
// --requests (soak), --photo-every (0: none).
#include <fmt/format.h>

#include <nlohmann/json.hpp>
#include <thread>

#include "support/caller.h"
#include "support/log_files.h"
#include "support/process.h"

namespace {

using namespace varnel::bench;
using nlohmann::json;
using std::chrono::milliseconds;

// The daemon flushes its log every ten seconds.
constexpr std::chrono::seconds kLogFlush{11};

/// One kind of request and the answer that belongs to it.
struct Kind {
  std::string method;
  std::string params;
  json answer;  // {"result": ...} or {"error": ...}
};

/// Sends numbered requests and keeps account of their answers.
class Ledger {
 public:
  Ledger(const Options& options, const Target& target, int photo_every)
      : link_(Connect(options, "burst-and-soak")), target_(target), photo_every_(photo_every) {
    link_.Subscribe(target_.response_topic, 0);
  }

  uint64_t Sent() const { return answers_.size(); }
  int64_t Doubled() const { return doubled_; }
  int64_t MixedUp() const { return mixed_up_; }

  void Queue() {
    const uint64_t id = answers_.size();
    const Kind kind = KindOf(id);
    link_.Queue(target_.request_topic, RequestText(id, kind.method, kind.params));
    answers_.push_back(false);
  }
  void Flush() { link_.Flush(); }

  /// Takes in what arrives until `wanted` first answers came or none came for `quiet`; how many
  /// came.
  int64_t Collect(int64_t wanted, milliseconds quiet) {
    int64_t answered = 0;
    while (answered < wanted) {
      const auto message = link_.Receive(quiet);
      if (!message) {
        break;
      }
      answered += Take(message->payload) ? 1 : 0;
    }
    return answered;
  }

 private:
  Kind KindOf(uint64_t id) const {
    if (photo_every_ > 0 && id % static_cast<uint64_t>(photo_every_) == 5) {
      return {"camera.take_a_photo", R"({"reason":"debug"})", {{"result", {{"state", "success"}}}}};
    }
    if (id % 5 == 3) {
      const std::string name = fmt::format("camera.unknown_{}", id);
      return {name, "", Error(-32601, "Method not found", "Method not found: " + name)};
    }
    if (id % 5 == 4) {
      return {"camera.take_a_photo", R"({"reason":5})", Error(-32602, "Invalid params", nullptr)};
    }
    return {"camera.get_status", "", {{"result", Status()}}};
  }

  static json Status() {
    return {{"state", "success"},
            {"interface_type", "MIPI"},
            {"monitoring", false},
            {"timelapse", false}};
  }

  static json Error(int code, const std::string& message, const json& data) {
    json error = {{"code", code}, {"message", message}};
    if (!data.is_null()) {
      error["data"] = data;
    }
    return {{"error", error}};
  }

  // Whether this was the first answer to its request.
  bool Take(const std::string& payload) {
    const json answer = json::parse(payload);
    const auto id = answer.at("id").get<uint64_t>();
    if (id >= answers_.size()) {
      ++mixed_up_;
      return false;
    }
    json expected = KindOf(id).answer;
    expected["jsonrpc"] = "2.0";
    expected["id"] = id;
    mixed_up_ += answer == expected ? 0 : 1;
    if (answers_[id]) {
      ++doubled_;
      return false;
    }
    answers_[id] = true;
    return true;
  }

  MqttLink link_;
  Target target_;
  int photo_every_;
  std::vector<bool> answers_;
  int64_t doubled_ = 0;
  int64_t mixed_up_ = 0;
};

struct Burst {
  std::string start;  // as the log writes time
  std::string end;
  int64_t answered = 0;
};

Burst SendBurst(Ledger& ledger, int size, milliseconds quiet) {
  Burst burst{LogTimeNow(), "", 0};
  for (int request = 0; request < size; ++request) {
    ledger.Queue();
  }
  ledger.Flush();
  burst.answered = ledger.Collect(size, quiet);
  burst.end = LogTimeNow();
  return burst;
}

void SmallBursts(Ledger& ledger, int bursts, Report& report) {
  constexpr int kSize = 256;
  int64_t missing = 0;
  for (int burst = 0; burst < bursts; ++burst) {
    missing += kSize - SendBurst(ledger, kSize, milliseconds(3000)).answered;
  }
  report.Figure("bursts of 256", bursts, "");
  report.AtMost("bursts of 256: unanswered requests", static_cast<double>(missing), 0);
}

void LargeBursts(Ledger& ledger, int bursts, const std::string& log_dir, Report& report) {
  constexpr int kSize = 1000;
  std::vector<Burst> all;
  all.reserve(static_cast<size_t>(bursts));
  for (int burst = 0; burst < bursts; ++burst) {
    all.push_back(SendBurst(ledger, kSize, milliseconds(1000)));
  }
  std::this_thread::sleep_for(kLogFlush);
  const LogFiles log(log_dir, "varnel");
  int64_t answered = 0;
  int64_t dropped = 0;
  int64_t wrong = 0;
  for (const Burst& burst : all) {
    const int64_t drops = log.Count("queue full", burst.start, burst.end);
    answered += burst.answered;
    dropped += drops;
    wrong += burst.answered + drops == kSize ? 0 : 1;
  }
  report.Figure("bursts of 1000", bursts, "");
  report.Figure("bursts of 1000: answered", static_cast<double>(answered), "");
  report.Figure("bursts of 1000: logged as dropped", static_cast<double>(dropped), "");
  report.AtMost("bursts of 1000 whose answers and drops are not 1000", static_cast<double>(wrong),
                0);
}

// Keeps 16 requests on their way; what is not answered for ten seconds is lost.
int64_t SoakRequests(Ledger& ledger, int64_t requests) {
  constexpr int64_t kInFlight = 16;
  int64_t sent = 0;
  int64_t lost = 0;
  int64_t in_flight = 0;
  while (sent < requests || in_flight > 0) {
    for (; in_flight < kInFlight && sent < requests; ++in_flight, ++sent) {
      ledger.Queue();
    }
    ledger.Flush();
    const int64_t answered = ledger.Collect(1, milliseconds(10000));
    lost += answered == 0 ? in_flight : 0;
    in_flight = answered == 0 ? 0 : in_flight - answered;
  }
  return lost;
}

void Soak(Ledger& ledger, int64_t requests, pid_t daemon, Report& report) {
  // Buffers and allocator arenas reach their size first.
  int64_t lost = SoakRequests(ledger, requests / 20);
  const ProcessSize before = SizeOf(daemon);
  const auto start = std::chrono::steady_clock::now();
  lost += SoakRequests(ledger, requests - requests / 20);
  const ProcessSize after = SizeOf(daemon);
  report.Figure("soak: requests", static_cast<double>(requests), "");
  report.Figure("soak: seconds", Since(start) / 1000, "s");
  report.AtMost("soak: lost answers", static_cast<double>(lost), 0);
  report.AtMost("soak: growth of resident memory, MiB",
                static_cast<double>(after.resident_kib - before.resident_kib) / 1024, 2);
  report.AtMost("soak: growth of descriptors",
                static_cast<double>(after.descriptors - before.descriptors), 0);
  report.AtMost("soak: growth of threads", static_cast<double>(after.threads - before.threads), 0);
}

int Measure(const Options& options) {
  const Target target = DaemonTarget(options);
  Report report;
  Ledger ledger(options, target, options.Number("photo-every", 0));
  SmallBursts(ledger, options.Number("small-bursts", 50), report);
  LargeBursts(ledger, options.Number("large-bursts", 20), options.Text("log-dir"), report);
  Soak(ledger, options.Number("requests", 1000000), target.pid, report);
  // Answers that come too late would still be counted here.
  ledger.Collect(1, milliseconds(500));
  report.AtMost("answers given twice", static_cast<double>(ledger.Doubled()), 0);
  report.AtMost("answers mixed up", static_cast<double>(ledger.MixedUp()), 0);
  return report.ExitStatus();
}

}  // namespace

int main(int argc, char** argv) {
  return Guarded(argc, argv, Measure);
}
