#pragma once

#include <initializer_list>
#include <map>
#include <nlohmann/json_fwd.hpp>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

#include "programs/web/http/Message.h"

namespace tavix::web {

// A request that is not carried out: becomes an answer with a problem (RFC 9457). A plain value.
class Refusal : public std::runtime_error {
 public:
  // By name, a value of JSON as text.
  using Members = std::map<std::string, std::string>;

  // members: what the problem has beside type, title, status and detail.
  Refusal(int status, const std::string& detail, Members members = {}, Headers headers = {})
      : std::runtime_error(detail), _status(status), _members(std::move(members)), _headers(std::move(headers)) {}

  int GetStatus() const { return _status; }
  const Members& GetMembers() const { return _members; }
  const Headers& GetHeaders() const { return _headers; }

 private:
  int _status;
  Members _members;
  Headers _headers;
};

// A member of a problem that is a string, of any bytes. A plain value.
struct TextMember {
  const char* name;
  std::string_view text;
};

// Throw a Refusal. Many places do, and each is several times as large when it makes one itself.
[[noreturn]] void Refuse(int status, const char* detail);
[[noreturn]] void Refuse(int status, std::initializer_list<std::string_view> partsOfDetail,
                         std::initializer_list<TextMember> members = {});

// The same with a time after which the request may be carried out.
[[noreturn]] void RefuseForNow(int status, const char* detail, long long seconds);

// A string of JSON, of any bytes.
std::string Quoted(const std::string& text);

// The answer to a request that is refused.
Response ToResponse(const Refusal& refusal);

// An answer with a JSON document, or with the text of one.
Response JsonResponse(const nlohmann::json& document, int status = 200);
Response TextResponse(std::string document, int status = 200);

}  // namespace tavix::web
