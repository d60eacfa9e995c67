#pragma once

#include <string>

namespace varnel::comms {

/// While it lives, this process's look-ups of one host name are answered with one numeric address,
/// at once and without a name server. The MQTT library looks names up itself, with the lock held
/// that all its clients share, and the C library remembers no answer: a name server that falls
/// silent between our look-up and the library's would stop every link. Thread-safe.
class NamePin {
 public:
  NamePin(std::string host, const std::string& address);
  ~NamePin();
  NamePin(const NamePin&) = delete;
  NamePin& operator=(const NamePin&) = delete;

 private:
  const std::string host_;
};

}  // namespace varnel::comms
