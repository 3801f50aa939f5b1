#include "tavix/settings/server/RequestLists.h"

#include "tavix/core/SettingsText.h"
#include "tavix/osa/Exception.h"
#include "tavix/settings/client/ProtocolConstants.h"

namespace tavix::settings::server {

void CheckCount(size_t count, size_t max, const char* what) {
  if (count > max && max > 0) throw osa::Exception("A list holds more than the %zu %s allowed", max, what);
}

void CheckName(const std::string& name, size_t max) {
  if (name.size() > max && max > 0) {
    throw osa::Exception("The name \"%s...\" of %zu bytes is longer than the %zu allowed",
                         core::PrintableText(name, 40).c_str(), name.size(), max);
  }
}

bool IsLine(const std::string& name) {
  return name != client::protocol::kTerminator && name.find('\n') == std::string::npos;
}

bool IsPattern(const std::string& value) {
  return value.find('*') != std::string::npos;
}

void CheckNames(const core::IniFile& document, size_t maxBytes) {
  for (const auto& [name, keys] : document) {
    CheckName(name, maxBytes);
    if (!IsLine(name)) {
      throw osa::Exception("Group name \"%s\" can't stand on a line of its own", core::PrintableText(name, 80).c_str());
    }
    for (const auto& key : keys) CheckName(key.first, maxBytes);
  }
}

void BoundedSet::Add(const std::string& value) {
  CheckName(value, _bounds.nameBytes);
  ++_count;
  if (IsTooLong()) {
    _values.clear();
  } else {
    _values.insert(value);
  }
}

}  // namespace tavix::settings::server
