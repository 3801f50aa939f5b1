#pragma once

#include <map>
#include <string>

// The floor of everything that holds settings in memory: a map of maps, filled from and written to plain text by the
// shortest loops. No escapes, no blanks around a key, no error texts, no group or key out of order or twice.
namespace tavix::bench {

using BareMap = std::map<std::string, std::map<std::string, std::string>>;

BareMap ParseBareMap(const std::string& text);

// Append settings text to "out".
void AppendBareGroup(const std::string& name, const BareMap::mapped_type& keys, std::string& out);
void AppendBareMap(const BareMap& document, std::string& out);

}  // namespace tavix::bench
