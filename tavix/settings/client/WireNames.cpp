#include "tavix/settings/client/WireNames.h"

#include "tavix/core/IniFile.h"
#include "tavix/core/MemoryStream.h"
#include "tavix/core/SettingsText.h"
#include "tavix/osa/Exception.h"
#include "tavix/settings/client/Commands.h"
#include "tavix/settings/client/ProtocolConstants.h"

namespace tavix::settings::client {

namespace {

constexpr size_t kMaxEscape = 5;  // an escape has four bytes; the fifth is for what stands around the text

std::string Shown(const std::string& name) {
  return core::PrintableText(name, 80);
}

void RequireSendableName(const std::string& name) {
  if (name == protocol::kTerminator || name.find('\n') != std::string::npos)
    throw osa::Exception("Group name \"%s\" can't be sent: it can't stand on a line of its own", Shown(name).c_str());
  if (name.size() > protocol::kMaxLineBytes)
    throw osa::Exception("Group name \"%s\" can't be sent: its %zu bytes are more than the %lu of a line",
                         Shown(name).c_str(), name.size(), protocol::kMaxLineBytes);
}

size_t CountBytes(const core::IniFile& document) {
  core::CountingOstream out;
  document.SaveToStream(out);
  return out.GetCount();
}

// Without the line feed. Escapes make it longer than what they stand for.
size_t CountLine(const std::string& key, const std::string& value) {
  core::IniFile document;
  document[""];
  const size_t header = CountBytes(document);
  document.SetValue("", key, value);
  return CountBytes(document) - header - 1;
}

void RequireSendableHeader(const std::string& name) {
  if (name.size() < protocol::kMaxLineBytes / kMaxEscape) return;
  core::IniFile document;
  document[name];
  const size_t bytes = CountBytes(document) - 1;
  if (bytes > protocol::kMaxLineBytes)
    throw osa::Exception("Group name \"%s\" can't be sent: its line of %zu bytes is longer than the %lu allowed",
                         Shown(name).c_str(), bytes, protocol::kMaxLineBytes);
}

void RequireSendableKey(const std::string& group, const std::string& key, const std::string& value) {
  if (key.size() + value.size() < protocol::kMaxLineBytes / kMaxEscape) return;
  const size_t bytes = CountLine(key, value);
  if (bytes > protocol::kMaxLineBytes)
    throw osa::Exception(
        "Key \"%s\" of group \"%s\" can't be sent: its line of %zu bytes is longer than the %lu allowed",
        Shown(key).c_str(), Shown(group).c_str(), bytes, protocol::kMaxLineBytes);
}

}  // namespace

void RequireSendableNames(const std::set<std::string>& namesAndPatterns) {
  for (const std::string& name : namesAndPatterns) RequireSendableName(name);
}

void RequireSendableNames(const core::IniFile& settings) {
  for (const auto& [group, keys] : settings) {
    RequireSendableName(group);
    RequireSendableHeader(group);
    for (const auto& [key, value] : keys) RequireSendableKey(group, key, value);
  }
}

void RequireSendableNames(const Amendment& amendment) {
  for (const core::IniFile* const part : PartsOf(amendment)) RequireSendableNames(*part);
}

}  // namespace tavix::settings::client
