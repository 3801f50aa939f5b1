#pragma once

#include <map>
#include <stdexcept>
#include <string>
#include <utility>

#include "tests/support/ProtocolClient.h"

namespace tavix::test {

// What was answered. Names of headers are in lower case.
struct HttpReply {
  int status = 0;
  std::map<std::string, std::string> headers;
  std::string body;
};

// A connection of a client of HTTP that can send anything, over what sends and reads bytes as ProtocolClient does.
//
// Threads: one.
// Errors:  as Transport.
template <class Transport>
class HttpOver : public Transport {
 public:
  using Transport::Transport;

  // One request, with Host and, where "body" has text, its length and a type of JSON. headers: lines that end with a
  // carriage return and a line feed.
  void SendRequest(const std::string& method, const std::string& target, const std::string& body = {},
                   const std::string& headers = {}) {
    const bool takesBody = method == "POST" || method == "PUT" || method == "PATCH";
    std::string head = method + " " + target + " HTTP/1.1\r\n" + headers;
    if (("\n" + headers).find("\nHost:") == std::string::npos) head += "Host: localhost\r\n";
    if (takesBody) head += "Content-Length: " + std::to_string(body.size()) + "\r\n";
    if (takesBody && headers.find("Content-Type:") == std::string::npos) head += "Content-Type: application/json\r\n";
    this->Send(head + "\r\n" + body);
  }

  // The next answer. isHead: it is one of HEAD, which has no body.
  HttpReply ReadReply(bool isHead = false) {
    const std::string head = this->ReadUntil("\r\n\r\n");
    HttpReply reply;
    if (head.compare(0, 9, "HTTP/1.1 ") != 0) throw std::runtime_error("This is no answer: " + head);
    reply.status = std::stoi(head.substr(9, 3));
    for (size_t at = head.find("\r\n") + 2; at < head.size() - 2;) {
      const size_t end = head.find("\r\n", at);
      const size_t colon = head.find(": ", at);
      std::string name = head.substr(at, colon - at);
      for (char& c : name) c = static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
      reply.headers[std::move(name)] = head.substr(colon + 2, end - colon - 2);
      at = end + 2;
    }
    const auto length = reply.headers.find("content-length");
    if (length != reply.headers.end() && !isHead) reply.body = this->Read(std::stoul(length->second));
    return reply;
  }

  HttpReply Ask(const std::string& method, const std::string& target, const std::string& body = {},
                const std::string& headers = {}) {
    SendRequest(method, target, body, headers);
    return ReadReply(method == "HEAD");
  }

  // The next event of a stream, without comments: its name, and all of it.
  std::pair<std::string, std::string> ReadEvent() {
    while (true) {
      const std::string text = this->ReadUntil("\n\n");
      const size_t at = text.find("event: ");
      if (at != std::string::npos) return {text.substr(at + 7, text.find('\n', at) - at - 7), text};
    }
  }
};

using HttpConnection = HttpOver<ProtocolClient>;

}  // namespace tavix::test
