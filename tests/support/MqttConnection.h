#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "tavix/osa/Descriptor.h"

namespace tavix::test {

// A client of a broker of MQTT 5 on 127.0.0.1, without a library and a thread. It begins clean, and all that it sends
// and asks for has QoS 1. Requests are sent at once; the broker answers them in their order, and each answer has to be
// awaited before the next message.
//
// Threads: one.
// Errors:  std::runtime_error, when something else comes than what is awaited, or nothing within kPatience.
class MqttConnection {
 public:
  explicit MqttConnection(unsigned short port);

  // will: the topic of a last will that is kept.
  void SendConnect(const std::string& client, const std::string& will) const;
  void SendSubscribe(const std::vector<std::string>& filters) const;
  // The broker keeps it.
  void SendPublish(const std::string& topic, const std::string& payload) const;

  void AwaitConnected();
  void AwaitSubscribed();
  void AwaitPublished();

  // The next message's payload, which is confirmed.
  std::string AwaitMessage();

 private:
  void Send(char head, const std::string& body) const;
  std::string Receive(char kind);
  std::size_t FindBody(std::size_t& size) const;
  void ReceiveMore();

  osa::Descriptor _socket;
  std::string _bytes;  // that came, and were not awaited yet
};

}  // namespace tavix::test
