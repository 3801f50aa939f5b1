#include "programs/bridge/formats/DeviceMessages.h"

#include <cstdio>
#include <nlohmann/json.hpp>

#include "programs/bridge/formats/JsonText.h"
#include "programs/bridge/formats/KeysJson.h"
#include "programs/common/client/JsonObject.h"
#include "programs/common/client/JsonWriter.h"

namespace tavix::bridge {

using nlohmann::json;

std::string ComposeReported(const std::string& epoch, std::uint64_t version, const Keys& keys,
                            const std::set<std::string>& masked) {
  json message = programs::JsonObject().Add("format", 1).Add("epoch", epoch).Add("version", version).Take();
  if (keys.empty()) {
    message["gone"] = true;
  } else {
    message["values"] = KeysToJson(keys, masked);
  }
  return programs::WriteJson(message);
}

ReportedGroup ParseReported(const std::string& bytes, size_t maxBytes) {
  const json message = ParseJson(bytes, maxBytes);
  RequireFormat(message);
  return {GetText(message, "epoch"), GetNumber(message, "version"), message.contains("gone")};
}

const char* NameOf(ResultState state) {
  switch (state) {
    case ResultState::kApplied:
      return "applied";
    case ResultState::kOverridden:
      return "overridden";
    case ResultState::kUnsupported:
      return "unsupported";
    case ResultState::kRefused:
      break;
  }
  return "refused";
}

std::string ComposeResult(const Result& result) {
  json message = programs::JsonObject()
                     .Add("version", nullptr)
                     .Add("state", NameOf(result.state))
                     .Add("keys", json::object())
                     .Take();
  if (result.version) message["version"] = *result.version;
  if (!result.reason.empty()) message["reason"] = result.reason;
  for (const auto& [key, reason] : result.keys) message["keys"][key] = reason;
  return programs::WriteJson(message);
}

std::string ComposeIndex(const std::string& epoch, std::uint64_t hash) {
  char text[17];
  std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(hash));
  return programs::WriteJson(programs::JsonObject().Add("format", 1).Add("epoch", epoch).Add("hash", text).Take());
}

std::string ComposeStatus(const std::string& version, const std::map<std::string, unsigned long long>& figures,
                          const std::string& state) {
  return programs::WriteJson(programs::JsonObject()
                                 .Add("format", 1)
                                 .Add("online", true)
                                 .Add("bridge", version)
                                 .Add("state", state)
                                 .Add("counters", figures)
                                 .Take());
}

std::string ComposeOffline() {
  return programs::WriteJson(programs::JsonObject().Add("format", 1).Add("online", false).Take());
}

}  // namespace tavix::bridge
