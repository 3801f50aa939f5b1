#pragma once

#include <string>

namespace tavix::web {

// Whether a list of entity tags (RFC 9110, section 8.8.3), or "*", names a version. A weak one does only where
// it is to be compared so: for what is read, never for what is written.
bool NamesVersion(const std::string& tags, const std::string& version, bool comparesWeakly = false);

}  // namespace tavix::web
