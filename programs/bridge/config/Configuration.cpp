#include "programs/bridge/config/Configuration.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>

#include "programs/bridge/config/Section.h"
#include "programs/common/client/Join.h"
#include "programs/common/client/Spelling.h"
#include "tavix/osa/Descriptor.h"

namespace tavix::bridge {

using core::IniFile;

namespace {

constexpr char kMapPrefix[] = "map ";

bool IsMap(const std::string& section) {
  return section.rfind(kMapPrefix, 0) == 0 && section.size() > sizeof kMapPrefix - 1;
}

// A document knows no order of its groups; the first map that matches wins, in the order of the text.
std::vector<std::string> ListMaps(const std::string& text) {
  std::vector<std::string> maps;
  for (size_t next = 0; next < text.size();) {
    const size_t lineEnd = std::min(text.find('\n', next), text.size());
    const std::string line = text.substr(next, lineEnd - next);
    next = lineEnd + 1;
    const size_t begin = line.find_first_not_of(" \t");
    const size_t end = line.rfind(']');
    if (begin == std::string::npos || line[begin] != '[' || end == std::string::npos) continue;
    const std::string section = programs::Unspell(line.substr(begin + 1, end - begin - 1));
    if (IsMap(section) && std::find(maps.begin(), maps.end(), section) == maps.end()) maps.push_back(section);
  }
  return maps;
}

// It becomes a part of the names of files.
void RequireFileName(const Section& section, const std::string& name) {
  const bool isPlain = std::all_of(name.begin(), name.end(), [](unsigned char c) {
    return (c < 128 && std::isalnum(c) != 0) || c == '-' || c == '_' || c == '.';
  });
  if (!isPlain || name[0] == '.')
    section.Fail("name", programs::Join({"'", name, "' has other bytes than letters, digits and -_."}));
}

MqttSection ReadMqtt(Section& section) {
  MqttSection mqtt;
  mqtt.host = section.TakeRequired("host");
  mqtt.port = static_cast<int>(section.TakeNumber("port", 0));
  if (mqtt.port > 65535) section.Fail("port", "the highest port is 65535");
  mqtt.root = section.TakeRequired("root");
  if (mqtt.root.find_first_of("+#") != std::string::npos || mqtt.root.front() == '$' || mqtt.root.back() == '/') {
    section.Fail("root", programs::Join({"'", mqtt.root, "' is no topic to begin others with"}));
  }
  mqtt.device = section.TakeRequired("device");
  if (mqtt.device == "all" || mqtt.device == "class" || mqtt.device.find('/') != std::string::npos) {
    section.Fail("device", programs::Join({"'", mqtt.device, "' has another meaning in topics"}));
  }
  mqtt.deviceClass = section.TakeText("class");
  mqtt.credentials = section.TakeText("credentials");
  mqtt.ca = section.TakeText("ca");
  section.RequireNothingElse();
  return mqtt;
}

EtcdSection ReadEtcd(Section& section) {
  EtcdSection etcd;
  etcd.endpoints = section.TakeList("endpoints");
  if (etcd.endpoints.empty()) section.Fail("endpoints", "a value is missing");
  etcd.prefix = section.TakeRequired("prefix");
  if (etcd.prefix.back() == '/') section.Fail("prefix", "it ends without '/'");
  etcd.credentials = section.TakeText("credentials");
  etcd.ca = section.TakeText("ca");
  section.RequireNothingElse();
  return etcd;
}

Milliseconds TakeTime(Section& section, const char* key, Milliseconds byDefault, unsigned long long unit,
                      unsigned long long min = 0) {
  const auto number = section.TakeNumber(key, static_cast<unsigned long long>(byDefault.count()) / unit, min);
  return Milliseconds(static_cast<Milliseconds::rep>(number * unit));
}

Limits ReadLimits(Section& section) {
  Limits limits;
  limits.maxGroups = section.TakeNumber("max-groups", limits.maxGroups);
  limits.maxPendingBytes = section.TakeNumber("max-pending", limits.maxPendingBytes);
  limits.maxDocument = section.TakeNumber("max-document", limits.maxDocument);
  limits.maxInFlight = section.TakeNumber("max-in-flight", limits.maxInFlight);
  if (limits.maxInFlight > Limits().maxInFlight) section.Fail("max-in-flight", "it is 20 at most");
  limits.maxAttempts = section.TakeNumber("max-attempts", limits.maxAttempts);
  limits.maxConflicts = section.TakeNumber("max-conflicts", limits.maxConflicts);
  limits.groupInterval = TakeTime(section, "group-interval-ms", limits.groupInterval, 1);
  limits.deviceRate = section.TakeNumber("rate", limits.deviceRate);
  if (limits.deviceRate > 1000) section.Fail("rate", "it is 1000 at most");
  limits.deviceBurst = section.TakeNumber("burst", limits.deviceBurst);
  limits.spread = TakeTime(section, "spread", limits.spread, 1000);
  limits.reconnectMin = TakeTime(section, "reconnect-min", limits.reconnectMin, 1000, 1);
  limits.reconnectMax = TakeTime(section, "reconnect-max", limits.reconnectMax, 1000);
  if (limits.reconnectMax < limits.reconnectMin) section.Fail("reconnect-max", "it is not below reconnect-min");
  limits.reconnectStable = TakeTime(section, "reconnect-stable", limits.reconnectStable, 1000);
  limits.statusInterval = TakeTime(section, "status-interval", limits.statusInterval, 1000);
  limits.missingAfter = TakeTime(section, "missing-after", limits.missingAfter, 1000);
  limits.heldGroups = section.TakeNumber("held-groups", limits.heldGroups);
  limits.heldWindow = TakeTime(section, "held-window", limits.heldWindow, 1000);
  section.RequireNothingElse();
  return limits;
}

MapRule ReadMap(Section& section, const std::string& name) {
  MapRule map;
  map.name = name.substr(sizeof kMapPrefix - 1);
  map.pattern = section.TakeRequired("pattern");
  if (map.pattern.find('\n') != std::string::npos || map.pattern == ".") {
    section.Fail("pattern", programs::Join({"no request can hold '", programs::SpellValue(map.pattern), "'"}));
  }
  section.TakeRequired("direction");
  map.direction = section.TakeWord<Direction>(
      "direction", {{"up", Direction::kUp}, {"down", Direction::kDown}, {"both", Direction::kBoth}});
  map.winner = section.TakeWord<Side>("winner", {{"centre", Side::kCentre}, {"device", Side::kDevice}});
  map.first = section.TakeWord<First>(
      "first", {{"centre", First::kCentre}, {"device", First::kDevice}, {"refuse", First::kRefuse}});
  section.RequireNothingElse();
  return map;
}

void ReadBridge(Section& section, Configuration& configuration) {
  configuration.name = section.TakeRequired("name");
  RequireFileName(section, configuration.name);
  configuration.server = section.TakeText("server");
  configuration.state =
      section.TakeText("state", programs::Join({"/var/lib/tavix-settings/bridges/", configuration.name, ".db"}));
  configuration.runtime = section.TakeText("runtime", "/run/tavix-settings/bridges");
  configuration.never = section.TakeList("never");
  configuration.mask = section.TakeList("mask");
  for (const std::string& mask : configuration.mask) {
    if (mask.front() != '[' || mask.find(']') == std::string::npos)
      section.Fail("mask", programs::Join({"'", mask, "' is no [group]key"}));
  }
  section.RequireNothingElse();
}

}  // namespace

Configuration ParseConfiguration(const std::string& text, const std::string& source) {
  IniFile all;
  try {
    all.LoadFromMemory(text, source);
  } catch (const osa::Exception& error) {
    throw ConfigurationError(error.what());
  }
  for (const auto& [section, keys] : all) {
    if (section != "bridge" && section != "mqtt" && section != "etcd" && section != "limits" && !IsMap(section)) {
      throw ConfigurationError(
          programs::Join({source, ": [", programs::SpellName(section), "]: the section is unknown"}));
    }
  }
  Configuration configuration;
  Section bridge(all, "bridge", source);
  ReadBridge(bridge, configuration);
  Section mqtt(all, "mqtt", source);
  Section etcd(all, "etcd", source);
  if (mqtt.IsThere() == etcd.IsThere()) throw ConfigurationError(source + ": one of [mqtt] and [etcd] has to be there");
  if (mqtt.IsThere()) configuration.mqtt = ReadMqtt(mqtt);
  if (etcd.IsThere()) configuration.etcd = ReadEtcd(etcd);
  Section limits(all, "limits", source);
  configuration.limits = ReadLimits(limits);
  for (const std::string& name : ListMaps(text)) {
    Section map(all, name, source);
    configuration.maps.push_back(ReadMap(map, name));
  }
  if (configuration.maps.empty()) throw ConfigurationError(source + ": a section [map NAME] is missing");
  return configuration;
}

Configuration ReadConfiguration(const std::string& path) {
  const osa::Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  std::string text;
  char part[4096];
  ssize_t count = file ? 1 : -1;
  while (count > 0 && (count = read(file.Get(), part, sizeof part)) > 0) text.append(part, static_cast<size_t>(count));
  if (count < 0) {
    throw ConfigurationError(programs::Join({"Failed to read the configuration '", path, "': ", std::strerror(errno)}));
  }
  return ParseConfiguration(text, path);
}

}  // namespace tavix::bridge
