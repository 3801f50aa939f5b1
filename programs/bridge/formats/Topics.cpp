#include "programs/bridge/formats/Topics.h"

#include <cstdio>

#include "programs/common/client/Join.h"

namespace tavix::bridge {

namespace {

constexpr char kDesired[] = "desired/";

bool StandsForItself(char c) {
  const bool isLetter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
  return isLetter || (c >= '0' && c <= '9') || c == '/' || c == '-' || c == '.' || c == '_' || c == '~';
}

int ValueOfHex(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

std::optional<std::string> RestBehind(const std::string& prefix, const std::string& text) {
  if (prefix.empty() || text.size() <= prefix.size() || text.compare(0, prefix.size(), prefix) != 0) {
    return std::nullopt;
  }
  return text.substr(prefix.size());
}

}  // namespace

std::string EncodeForTopic(const std::string& name) {
  std::string text;
  for (const char c : name) {
    if (StandsForItself(c)) {
      text += c;
      continue;
    }
    char escaped[4];
    std::snprintf(escaped, sizeof escaped, "%%%02X", static_cast<unsigned int>(static_cast<unsigned char>(c)));
    text += escaped;
  }
  return text;
}

std::optional<std::string> DecodeFromTopic(const std::string& text) {
  std::string name;
  for (size_t at = 0; at < text.size(); ++at) {
    if (StandsForItself(text[at])) {
      name += text[at];
      continue;
    }
    if (text[at] != '%' || at + 2 >= text.size()) return std::nullopt;
    const int high = ValueOfHex(text[at + 1]);
    const int low = ValueOfHex(text[at + 2]);
    if (high < 0 || low < 0) return std::nullopt;
    name += static_cast<char>(high * 16 + low);
    at += 2;
  }
  // A byte that stands for itself has no other spelling: else two topics would name one group.
  if (EncodeForTopic(name) != text) return std::nullopt;
  return name;
}

Topics::Topics(const std::string& root, const std::string& device, const std::string& deviceClass)
    : _device(programs::Join({root, "/", EncodeForTopic(device), "/"})),
      _class(deviceClass.empty() ? std::string() : programs::Join({root, "/class/", EncodeForTopic(deviceClass), "/"})),
      _all(root + "/all/") {}

std::string Topics::GetDesiredPrefix(Level level) const {
  if (level == Level::kAll) return _all + kDesired;
  if (level == Level::kDevice) return _device + kDesired;
  return _class.empty() ? std::string() : _class + kDesired;
}

std::string Topics::GetDesired(const DocumentName& document) const {
  return GetDesiredPrefix(document.level) + document.name;
}

std::optional<DocumentName> Topics::FindDocument(const std::string& topic) const {
  for (const Level level : {Level::kDevice, Level::kClass, Level::kAll}) {
    if (const auto name = RestBehind(GetDesiredPrefix(level), topic)) return DocumentName{level, *name};
  }
  return std::nullopt;
}

std::optional<std::string> Topics::FindReportedGroup(const std::string& topic) const {
  const auto text = RestBehind(GetReportedPrefix(), topic);
  return text ? DecodeFromTopic(*text) : std::nullopt;
}

}  // namespace tavix::bridge
