// Any bytes either are a phparray payload, and then survive being written and read again, or are refused by an
// exception.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>

#include "tavix/core/IniFile.h"
#include "tavix/osa/Exception.h"
#include "tavix/settings/common/GroupNameMatcher.h"
#include "tavix/settings/server/PhpArraySettingsSerializer.h"

using tavix::core::IniFile;
using tavix::settings::common::GroupNameMatcher;
using tavix::settings::server::PhpArraySettingsSerializer;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const PhpArraySettingsSerializer serializer;
  IniFile parsed;
  std::istringstream in(std::string(reinterpret_cast<const char*>(data), size));
  try {
    serializer.OnDeserialize(in, parsed);
  } catch (const tavix::osa::Exception&) {
    return 0;
  }
  GroupNameMatcher all;
  all.AddNameOrPattern("*");
  std::stringstream written;
  serializer.OnSerialize(parsed, all, written);
  IniFile read;
  serializer.OnDeserialize(written, read);
  if (read.GetGroups() != parsed.GetGroups()) std::abort();
  return 0;
}
