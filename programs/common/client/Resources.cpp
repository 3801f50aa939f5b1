#include "programs/common/client/Resources.h"

#include <nlohmann/json.hpp>
#include <optional>
#include <utility>

#include "programs/common/client/Json.h"
#include "programs/common/client/JsonObject.h"

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
    json object =
        JsonObject().Add("consumer", NameToJson(consumer)).Add("used", figures.GetUsed(consumer, resource)).Take();
    const std::optional<int> max = figures.GetMaxAllowed(consumer, resource);
    object["most"] = max ? json(*max) : json(nullptr);
    consumers.push_back(std::move(object));
  }
  return JsonObject()
      .Add("resource", NameToJson(resource))
      .Add("total", figures.GetTotal(resource))
      .Add("used", used)
      .Add("free", figures.GetTotal(resource) - used)
      .Add("consumers", consumers)
      .Take();
}

}  // namespace tavix::programs
