#pragma once

#include <MQTTAsync.h>

#include <string>
#include <string_view>
#include <vector>

namespace varnel::comms {

/// What became of a host name: numeric addresses in the order in which they are to be tried, or
/// what went wrong.
struct NameAddresses {
  std::vector<std::string> addresses{};
  std::string problem{};
};

/// Exactly the calls of the asynchronous MQTT library that ClientMqttAsync makes, with the
/// library's own return codes; tests hand in a fake.
class PahoAsyncApi {
 public:
  virtual ~PahoAsyncApi() = default;
  virtual std::string Version() const;
  virtual int Create(MQTTAsync* handle, const std::string& uri, const std::string& client_id,
                     MQTTAsync_createOptions& options);
  virtual int SetCallbacks(MQTTAsync handle, void* context, MQTTAsync_connectionLost* lost,
                           MQTTAsync_messageArrived* arrived);
  virtual int SetDisconnected(MQTTAsync handle, void* context,
                              MQTTAsync_disconnected* disconnected);
  virtual int Connect(MQTTAsync handle, const MQTTAsync_connectOptions& options);
  /// Looks a host name up; takes as long as the name servers do.
  virtual NameAddresses LookUp(const std::string& host);
  /// Returns when the library has left the work that it does under its lock.
  virtual void AwaitUnlocked(MQTTAsync handle);
  virtual int Disconnect(MQTTAsync handle, const MQTTAsync_disconnectOptions& options);
  virtual int Subscribe(MQTTAsync handle, const std::string& filter, int qos,
                        MQTTAsync_responseOptions& options);
  virtual int Unsubscribe(MQTTAsync handle, const std::string& filter,
                          MQTTAsync_responseOptions& options);
  virtual int Send(MQTTAsync handle, const std::string& topic, const MQTTAsync_message& message,
                   MQTTAsync_responseOptions& options);
  virtual void Destroy(MQTTAsync handle);

  /// The library itself.
  static PahoAsyncApi& Library();
};

}  // namespace varnel::comms
