// Any text either parses, and then survives being saved and loaded again, or is refused by an exception.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>

#include "tavix/core/IniFile.h"
#include "tavix/osa/Exception.h"

using tavix::core::IniFile;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  IniFile parsed;
  try {
    parsed.LoadFromString(std::string(reinterpret_cast<const char*>(data), size));
  } catch (const tavix::osa::Exception&) {
    if (!parsed.IsEmpty()) std::abort();  // a load that fails changes nothing
    return 0;
  }
  std::ostringstream saved;
  parsed.SaveToStream(saved);
  IniFile loaded;
  loaded.LoadFromString(saved.str());
  if (loaded.GetGroups() != parsed.GetGroups()) std::abort();
  if (("\n" + saved.str()).find("\n.\n") != std::string::npos) std::abort();
  return 0;
}
