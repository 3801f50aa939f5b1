#include "programs/web/http/Refusal.h"

#include <nlohmann/json.hpp>

#include "programs/common/client/Join.h"
#include "programs/common/client/Json.h"

namespace tavix::web {

using nlohmann::json;

void Refuse(int status, const char* detail) {
  throw Refusal(status, detail);
}

void Refuse(int status, std::initializer_list<std::string_view> partsOfDetail,
            std::initializer_list<TextMember> members) {
  Refusal::Members quoted;
  for (const TextMember& member : members) quoted[member.name] = Quoted(std::string(member.text));
  throw Refusal(status, programs::Join(partsOfDetail), std::move(quoted));
}

void RefuseForNow(int status, const char* detail, long long seconds) {
  throw Refusal(status, detail, {}, {{"Retry-After", std::to_string(seconds)}});
}

std::string Quoted(const std::string& text) {
  return programs::Compact(programs::NameToJson(text));
}

Response ToResponse(const Refusal& refusal) {
  const int status = refusal.GetStatus();
  std::string body = programs::Join({"{\"type\":\"about:blank\",\"title\":", Quoted(ReasonOf(status)),
                                     ",\"status\":", std::to_string(status), ",\"detail\":", Quoted(refusal.what())});
  for (const auto& [name, value] : refusal.GetMembers()) body += programs::Join({",\"", name, "\":", value});
  Response response{status, refusal.GetHeaders(), body + "}\n"};
  response.headers.emplace_back("Content-Type", "application/problem+json");
  return response;
}

Response JsonResponse(const json& document, int status) {
  return TextResponse(programs::Compact(document), status);
}

Response TextResponse(std::string document, int status) {
  return {status, {{"Content-Type", "application/json"}}, std::move(document += '\n')};
}

}  // namespace tavix::web
