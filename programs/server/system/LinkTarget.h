#pragma once

#include <string>

namespace tavix::daemon {

// Where "path" leads when it is a link, or a chain of them; what stands at its end need not exist. A circle is left for
// the first access to report.
std::string FollowLinks(const std::string& path);

}  // namespace tavix::daemon
