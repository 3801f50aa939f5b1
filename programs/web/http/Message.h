#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "programs/web/http/MemoryBudget.h"

namespace tavix::web {

// Names of requests are in lower case, those of responses as they are sent.
using Headers = std::vector<std::pair<std::string, std::string>>;

// One request as it was received, whole. A plain value.
struct Request {
  std::string method;
  std::string path;   // as it was sent: nothing of it is decoded
  std::string query;  // without the '?', as it was sent
  bool isHttp10 = false;
  Headers headers;
  std::string body;
  MemoryBudget::Share bodyShare;  // of the memory of all bodies; null: there is no body

  // The first value of a header; null when there is none.
  const std::string* Find(std::string_view name) const {
    for (const auto& [header, value] : headers) {
      if (header == name) return &value;
    }
    return nullptr;
  }

  // The last value: what a proxy in front adds behind the client's own lines.
  const std::string* FindLast(std::string_view name) const {
    for (auto header = headers.rbegin(); header != headers.rend(); ++header) {
      if (header->first == name) return &header->second;
    }
    return nullptr;
  }

  size_t Count(std::string_view name) const {
    size_t count = 0;
    for (const auto& [header, value] : headers) count += header == name ? 1 : 0;
    return count;
  }

  // Every method but these two changes something.
  bool IsWrite() const { return method != "GET" && method != "HEAD"; }
};

// What is answered. A plain value.
struct Response {
  int status = 200;
  Headers headers;
  std::string body;
  bool endsConnection = false;
  std::vector<MemoryBudget::Share> shares{};  // of the memory of all answers; none: it takes little
  std::string_view lastingBody{};             // in place of "body": bytes that outlive all connections
};

// The words that go with a status.
const char* ReasonOf(int status);

}  // namespace tavix::web
