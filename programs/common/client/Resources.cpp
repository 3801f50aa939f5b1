#include "programs/common/client/Resources.h"

#include <nlohmann/json.hpp>
#include <optional>
#include <utility>

#include "programs/common/client/Json.h"

namespace tavix::programs {

using nlohmann::json;
using settings::ResourceFigures;

core::IniFile ReadResources(Session& session) {
  return session.Get({ResourceFigures::GroupOf("*")});
}

json ReportResource(const ResourceFigures& figures, const std::string& resource) {
  const long long used = figures.GetUsedByAll(resource);
  json consumers = json::array();
  for (const std::string& consumer : figures.GetConsumers(resource)) {
    json object = {{"consumer", NameToJson(consumer)}, {"used", figures.GetUsed(consumer, resource)}};
    const std::optional<int> max = figures.GetMaxAllowed(consumer, resource);
    object["most"] = max ? json(*max) : json(nullptr);
    consumers.push_back(std::move(object));
  }
  return {{"resource", NameToJson(resource)},
          {"total", figures.GetTotal(resource)},
          {"used", used},
          {"free", figures.GetTotal(resource) - used},
          {"consumers", consumers}};
}

}  // namespace tavix::programs
