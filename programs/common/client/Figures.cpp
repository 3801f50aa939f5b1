#include "programs/common/client/Figures.h"

#include <algorithm>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <utility>

#include "programs/common/client/Json.h"
#include "programs/common/client/JsonObject.h"

namespace tavix::programs {

using nlohmann::json;

namespace {

bool IsNumber(const std::string& value) {
  return !value.empty() && std::all_of(value.begin(), value.end(), [](char c) { return c >= '0' && c <= '9'; });
}

// The figures that had names of their own before there were the server's.
void AddNamed(const json& figures, json& status) {
  constexpr std::pair<const char*, const char*> kNames[] = {{"groups", "groups.effective"},
                                                            {"restricted_groups", "groups.restricted"},
                                                            {"user_groups", "groups.user"},
                                                            {"settings", "keys.effective"}};
  for (const auto& [name, figure] : kNames) {
    if (figures.contains(figure)) status[name] = figures[figure];
  }
}

}  // namespace

json FiguresToJson(const Figures& figures) {
  json object = json::object();
  for (const auto& [name, value] : figures) {
    json& member = object[NameToJson(name).get<std::string>()];
    if (IsNumber(value)) {
      member = std::strtoull(value.c_str(), nullptr, 10);
    } else if (value == "true" || value == "false") {
      member = value == "true";
    } else {
      member = ValueToJson(value);
    }
  }
  return object;
}

json ReportServer(const std::string& address, double latencyInMilliseconds, const Figures& figures) {
  json status = JsonObject()
                    .Add("server", NameToJson(address))
                    .Add("reachable", true)
                    .Add("latency_ms", latencyInMilliseconds)
                    .Add("version", TAVIX_VERSION)
                    .Add("info", FiguresToJson(figures))
                    .Take();
  AddNamed(status["info"], status);
  return status;
}

}  // namespace tavix::programs
