#include "tavix/settings/client/WireNames.h"

#include "tavix/core/IniFile.h"
#include "tavix/core/SettingsText.h"
#include "tavix/osa/Exception.h"
#include "tavix/settings/client/ProtocolConstants.h"

namespace tavix::settings::client {

namespace {

void RequireSendableName(const std::string& name) {
  if (name != protocol::kTerminator && name.find('\n') == std::string::npos) return;
  throw osa::Exception("Group name \"%s\" can't be sent: it can't stand on a line of its own",
                       core::PrintableText(name, 80).c_str());
}

}  // namespace

void RequireSendableNames(const std::set<std::string>& namesAndPatterns) {
  for (const std::string& name : namesAndPatterns) RequireSendableName(name);
}

void RequireSendableNames(const core::IniFile& settings) {
  for (const auto& group : settings) RequireSendableName(group.first);
}

}  // namespace tavix::settings::client
