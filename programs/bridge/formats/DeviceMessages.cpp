#include "programs/bridge/formats/DeviceMessages.h"

#include <cstdio>
#include <nlohmann/json.hpp>

#include "programs/bridge/formats/JsonText.h"
#include "programs/bridge/formats/KeysJson.h"
#include "programs/common/client/JsonWriter.h"

namespace tavix::bridge {

using nlohmann::json;

std::string ComposeReported(const std::string& epoch, std::uint64_t version, const Keys& keys,
                            const std::set<std::string>& masked) {
  json message = {{"format", 1}, {"epoch", epoch}, {"version", version}};
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
  json message = {{"version", nullptr}, {"state", NameOf(result.state)}, {"keys", json::object()}};
  if (result.version) message["version"] = *result.version;
  if (!result.reason.empty()) message["reason"] = result.reason;
  for (const auto& [key, reason] : result.keys) message["keys"][key] = reason;
  return programs::WriteJson(message);
}

std::string ComposeIndex(const std::string& epoch, std::uint64_t hash) {
  char text[17];
  std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(hash));
  return programs::WriteJson({{"format", 1}, {"epoch", epoch}, {"hash", text}});
}

std::string ComposeStatus(const std::string& version, const std::map<std::string, unsigned long long>& figures,
                          const std::string& state) {
  return programs::WriteJson(
      {{"format", 1}, {"online", true}, {"bridge", version}, {"state", state}, {"counters", figures}});
}

std::string ComposeOffline() {
  return programs::WriteJson({{"format", 1}, {"online", false}});
}

}  // namespace tavix::bridge
