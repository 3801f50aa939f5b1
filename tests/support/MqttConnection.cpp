#include "tests/support/MqttConnection.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <stdexcept>
#include <system_error>

#include "tests/support/Patience.h"

// MQTT 5.0, OASIS Standard: chapter 2.1 has the heads, 1.5.5 the numbers of variable length.
namespace tavix::test {

namespace {

constexpr char kConnect = 0x10;
constexpr char kConnectAck = 0x20;
constexpr char kPublish = 0x30;
constexpr char kPublishAck = 0x40;
constexpr char kSubscribe = static_cast<char>(0x82);
constexpr char kSubscribeAck = static_cast<char>(0x90);
constexpr char kCleanStartAndWill = 0x2e;  // the will has QoS 1 and is kept
constexpr char kQosOne = 0x02;
constexpr char kKept = 0x01;
constexpr std::size_t kKeepAlive = 600;
constexpr char kNoProperties = 0;  // their length

std::string MakeNumber(std::size_t number) {
  return {static_cast<char>(number >> 8U), static_cast<char>(number & 0xffU)};
}

std::string MakeText(const std::string& text) {
  return MakeNumber(text.size()) + text;
}

// The number of variable length at that place, which is moved behind it. False: it is not whole.
bool ReadLength(const std::string& bytes, std::size_t& at, std::size_t& length) {
  length = 0;
  for (unsigned int shift = 0; at < bytes.size(); shift += 7) {
    const auto byte = static_cast<unsigned char>(bytes[at++]);
    length |= static_cast<std::size_t>(byte & 0x7fU) << shift;
    if (byte < 0x80) return true;
  }
  return false;
}

}  // namespace

MqttConnection::MqttConnection(unsigned short port) : _socket(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  const int on = 1;
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(port);
  if (connect(_socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      setsockopt(_socket.Get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) != 0)
    throw std::system_error(errno, std::generic_category(), "a connection to the broker");
}

void MqttConnection::SendConnect(const std::string& client, const std::string& will) const {
  Send(kConnect, MakeText("MQTT") + '\x05' + kCleanStartAndWill + MakeNumber(kKeepAlive) + kNoProperties +
                     MakeText(client) + kNoProperties + MakeText(will) + MakeText("offline"));
}

void MqttConnection::SendSubscribe(const std::vector<std::string>& filters) const {
  std::string body = MakeNumber(1) + kNoProperties;
  for (const std::string& filter : filters) body += MakeText(filter) + '\x01';
  Send(kSubscribe, body);
}

void MqttConnection::SendPublish(const std::string& topic, const std::string& payload) const {
  Send(kPublish | kQosOne | kKept, MakeText(topic) + MakeNumber(2) + kNoProperties + payload);
}

void MqttConnection::AwaitConnected() {
  const std::string answer = Receive(kConnectAck);
  if (answer.size() < 2 || answer[1] != 0) throw std::runtime_error("The broker refuses a client");
}

void MqttConnection::AwaitSubscribed() {
  Receive(kSubscribeAck);
}

void MqttConnection::AwaitPublished() {
  Receive(kPublishAck);
}

std::string MqttConnection::AwaitMessage() {
  const std::string body = Receive(kPublish | kQosOne);
  std::size_t at = 2 + (static_cast<std::size_t>(static_cast<unsigned char>(body.at(0))) << 8U) +
                   static_cast<unsigned char>(body.at(1));
  const std::string number = body.substr(at, 2);
  at += 2;
  std::size_t properties = 0;
  if (!ReadLength(body, at, properties)) throw std::runtime_error("The broker sent half of a message");
  Send(kPublishAck, number);
  return body.substr(at + properties);
}

void MqttConnection::Send(char head, const std::string& body) const {
  std::string packet(1, head);
  std::size_t rest = body.size();
  for (; rest >= 0x80; rest >>= 7U) packet += static_cast<char>((rest & 0x7fU) | 0x80U);
  packet += static_cast<char>(rest);
  packet += body;
  if (send(_socket.Get(), packet.data(), packet.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(packet.size()))
    throw std::runtime_error("The broker takes no further packet");
}

// The body of the next packet, whose head has to begin with the bits of "kind".
std::string MqttConnection::Receive(char kind) {
  while (true) {
    std::size_t size = 0;
    const std::size_t begin = FindBody(size);
    if (begin != 0 && _bytes.size() >= begin + size) {
      const bool isKind = (_bytes[0] & 0xf0) == (kind & 0xf0) && (_bytes[0] & kind) == kind;
      if (!isKind) throw std::runtime_error("The broker sent another packet");
      std::string body = _bytes.substr(begin, size);
      _bytes.erase(0, begin + size);
      return body;
    }
    ReceiveMore();
  }
}

// Where the next packet's body begins, and its size; 0: the head is not whole yet.
std::size_t MqttConnection::FindBody(std::size_t& size) const {
  std::size_t at = 1;
  return ReadLength(_bytes, at, size) ? at : 0;
}

void MqttConnection::ReceiveMore() {
  pollfd look{_socket.Get(), POLLIN, 0};
  const auto limit = std::chrono::milliseconds(kPatience).count();
  char part[4096];
  const ssize_t count = poll(&look, 1, static_cast<int>(limit)) > 0 ? recv(look.fd, part, sizeof part, 0) : 0;
  if (count <= 0) throw std::runtime_error("The broker sent no further packet");
  _bytes.append(part, static_cast<std::size_t>(count));
}

}  // namespace tavix::test
