#pragma once

#include <set>
#include <string>

namespace tavix::core {
class IniFile;
}
namespace tavix::settings {
struct Amendment;
}

namespace tavix::settings::client {

// Lists have a name on each line and end with a line that holds only ".": a name or pattern that holds a line break, or
// is ".", can't be sent, and neither can a line of more than protocol::kMaxLineBytes: a daemon ends the connection for
// it. Both throw osa::Exception that shows the name, or group and key.
void RequireSendableNames(const std::set<std::string>& namesAndPatterns);
void RequireSendableNames(const core::IniFile& settings);
void RequireSendableNames(const Amendment& amendment);

}  // namespace tavix::settings::client
