#include "support/paho_link.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <stdexcept>
#include <thread>

namespace varnel::bench {
namespace {

constexpr std::chrono::seconds kTimeout{5};

void Need(int code, const char* what) {
  if (code != MQTTASYNC_SUCCESS) {
    throw std::runtime_error(std::string(what) + " failed: " + std::to_string(code));
  }
}

// The library's callbacks settle a promise; `start` hands it over and begins the work.
template <class Start>
void Await(const char* what, Start start) {
  std::promise<int> done;
  Need(start(&done), what);
  auto result = done.get_future();
  if (result.wait_for(kTimeout) != std::future_status::ready) {
    throw std::runtime_error(std::string(what) + " timed out");
  }
  Need(result.get(), what);
}

void Succeeded(void* context, MQTTAsync_successData5*) {
  static_cast<std::promise<int>*>(context)->set_value(MQTTASYNC_SUCCESS);
}

void Failed(void* context, MQTTAsync_failureData5* data) {
  static_cast<std::promise<int>*>(context)->set_value(data->code != 0 ? data->code
                                                                      : MQTTASYNC_FAILURE);
}

int Arrived(void* context, char* topic, int, MQTTAsync_message* message) {
  const auto& listener = *static_cast<PahoLink::Listener*>(context);
  if (listener) {
    listener(
        {static_cast<const char*>(message->payload), static_cast<size_t>(message->payloadlen)});
  }
  MQTTAsync_freeMessage(&message);
  MQTTAsync_free(topic);
  return 1;
}

// The library does not give its socket away: it is the one with this peer.
void SetNoDelay(int port) {
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    const int descriptor = std::stoi(entry.path().filename());
    sockaddr_in peer{};
    socklen_t size = sizeof peer;
    if (getpeername(descriptor, reinterpret_cast<sockaddr*>(&peer), &size) == 0 &&
        peer.sin_family == AF_INET && ntohs(peer.sin_port) == port) {
      const int on = 1;
      setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    }
  }
}

}  // namespace

PahoSettings SettingsOf(const Options& options, const std::string& name) {
  return {options.Text("host", "127.0.0.1"), options.Number("port", 1883),
          name + "-" + std::to_string(getpid()), options.Number("qos", 0),
          options.Text("certificates", "")};
}

PahoLink::PahoLink(const PahoSettings& settings, Listener listener)
    : settings_(settings), listener_(std::move(listener)) {
  Create();
  Connect();
  SetNoDelay(settings_.port);
}

PahoLink::~PahoLink() {
  MQTTAsync_destroy(&client_);
}

void PahoLink::Create() {
  const std::string uri = (settings_.certificates.empty() ? "tcp://" : "ssl://") + settings_.host +
                          ":" + std::to_string(settings_.port);
  MQTTAsync_setTraceLevel(MQTTASYNC_TRACE_ERROR);  // by default it notes every call
  MQTTAsync_createOptions options = MQTTAsync_createOptions_initializer5;
  Need(MQTTAsync_createWithOptions(&client_, uri.c_str(), settings_.client_id.c_str(),
                                   MQTTCLIENT_PERSISTENCE_NONE, nullptr, &options),
       "create");
  Need(MQTTAsync_setCallbacks(client_, &listener_, nullptr, Arrived, nullptr), "set callbacks");
}

void PahoLink::Connect() {
  MQTTAsync_connectOptions options = MQTTAsync_connectOptions_initializer5;
  options.cleanstart = 1;
  const std::string& directory = settings_.certificates;
  const std::string root = directory + "/ca.crt";
  const std::string certificate = directory + "/client.crt";
  const std::string key = directory + "/client.key";
  MQTTAsync_SSLOptions tls = MQTTAsync_SSLOptions_initializer;
  tls.trustStore = root.c_str();
  tls.keyStore = certificate.c_str();
  tls.privateKey = key.c_str();
  tls.verify = 1;
  if (!directory.empty()) options.ssl = &tls;
  options.onSuccess5 = Succeeded;
  options.onFailure5 = Failed;
  Await("connect", [&](void* context) {
    options.context = context;
    return MQTTAsync_connect(client_, &options);
  });
}

void PahoLink::Subscribe(const std::string& topic) {
  MQTTAsync_responseOptions options = MQTTAsync_responseOptions_initializer;
  options.onSuccess5 = Succeeded;
  options.onFailure5 = Failed;
  Await("subscribe", [&](void* context) {
    options.context = context;
    return MQTTAsync_subscribe(client_, topic.c_str(), settings_.qos, &options);
  });
}

void PahoLink::Publish(const std::string& topic, const std::string& payload) {
  const std::lock_guard lock(send_mutex_);
  int code = MQTTASYNC_MAX_BUFFERED_MESSAGES;
  while (code == MQTTASYNC_MAX_BUFFERED_MESSAGES) {
    code = MQTTAsync_send(client_, topic.c_str(), static_cast<int>(payload.size()), payload.data(),
                          settings_.qos, 0, nullptr);
    if (code == MQTTASYNC_MAX_BUFFERED_MESSAGES) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }
  Need(code, "send");
}

}  // namespace varnel::bench
