#include "programs/web/http/Refusal.h"

#include <nlohmann/json.hpp>

#include "programs/common/client/Json.h"

namespace tavix::web {

using nlohmann::json;

std::string Quoted(const std::string& text) {
  return programs::Compact(programs::NameToJson(text));
}

Response ToResponse(const Refusal& refusal) {
  const int status = refusal.GetStatus();
  std::string body = R"({"type":"about:blank","title":)" + Quoted(ReasonOf(status)) +
                     ",\"status\":" + std::to_string(status) + ",\"detail\":" + Quoted(refusal.what());
  for (const auto& [name, value] : refusal.GetMembers()) body += ",\"" + name + "\":" + value;
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
