#include "comms/paho_async_api.h"

#include <netdb.h>
#include <sys/socket.h>

#include <array>
#include <cstring>
#include <memory>

namespace varnel::comms {

std::string PahoAsyncApi::Version() const {
  for (const MQTTAsync_nameValue* info = MQTTAsync_getVersionInfo(); info && info->name; ++info) {
    if (std::strcmp(info->name, "Version") == 0) return info->value;
  }
  return {};
}

int PahoAsyncApi::Create(MQTTAsync* handle, const std::string& uri, const std::string& client_id,
                         MQTTAsync_createOptions& options) {
  return MQTTAsync_createWithOptions(handle, uri.c_str(), client_id.c_str(),
                                     MQTTCLIENT_PERSISTENCE_NONE, nullptr, &options);
}

int PahoAsyncApi::SetCallbacks(MQTTAsync handle, void* context, MQTTAsync_connectionLost* lost,
                               MQTTAsync_messageArrived* arrived) {
  return MQTTAsync_setCallbacks(handle, context, lost, arrived, nullptr);
}

int PahoAsyncApi::SetDisconnected(MQTTAsync handle, void* context,
                                  MQTTAsync_disconnected* disconnected) {
  return MQTTAsync_setDisconnected(handle, context, disconnected);
}

int PahoAsyncApi::Connect(MQTTAsync handle, const MQTTAsync_connectOptions& options) {
  return MQTTAsync_connect(handle, &options);
}

NameAddresses PahoAsyncApi::LookUp(const std::string& host) {
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  const int code = ::getaddrinfo(host.c_str(), nullptr, &hints, &found);
  if (code != 0) return {{}, ::gai_strerror(code)};
  const std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)> owner(found, ::freeaddrinfo);
  NameAddresses names;
  for (const addrinfo* at = found; at; at = at->ai_next) {
    std::array<char, NI_MAXHOST> text{};
    if (::getnameinfo(at->ai_addr, at->ai_addrlen, text.data(), text.size(), nullptr, 0,
                      NI_NUMERICHOST) == 0) {
      names.addresses.emplace_back(text.data());
    }
  }
  if (names.addresses.empty()) names.problem = "no address";
  return names;
}

void PahoAsyncApi::AwaitUnlocked(MQTTAsync handle) {
  (void)MQTTAsync_isConnected(handle);  // takes the lock, and nothing else
}

int PahoAsyncApi::Disconnect(MQTTAsync handle, const MQTTAsync_disconnectOptions& options) {
  return MQTTAsync_disconnect(handle, &options);
}

int PahoAsyncApi::Subscribe(MQTTAsync handle, const std::string& filter, int qos,
                            MQTTAsync_responseOptions& options) {
  return MQTTAsync_subscribe(handle, filter.c_str(), qos, &options);
}

int PahoAsyncApi::Unsubscribe(MQTTAsync handle, const std::string& filter,
                              MQTTAsync_responseOptions& options) {
  return MQTTAsync_unsubscribe(handle, filter.c_str(), &options);
}

int PahoAsyncApi::Send(MQTTAsync handle, const std::string& topic, const MQTTAsync_message& message,
                       MQTTAsync_responseOptions& options) {
  return MQTTAsync_sendMessage(handle, topic.c_str(), &message, &options);
}

void PahoAsyncApi::Destroy(MQTTAsync handle) {
  MQTTAsync_destroy(&handle);
}

PahoAsyncApi& PahoAsyncApi::Library() {
  static PahoAsyncApi api;
  return api;
}

}  // namespace varnel::comms
