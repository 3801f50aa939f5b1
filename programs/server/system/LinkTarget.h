#pragma once

#include <sys/types.h>
#include <unistd.h>

#include <string>

#include "tavix/osa/Exception.h"

namespace tavix::daemon {

// A link on the way belongs to neither root nor the daemon's user, who did not choose where it leads.
class ForeignLink : public osa::Exception {
 public:
  explicit ForeignLink(const std::string& message) : Exception(message) {}
};

// Where "path" leads when it is a link, or a chain of them; what stands at its end need not exist. A circle is left for
// the first access to report. user: the daemon's.
//
// Throws ForeignLink, which names the first link on the way, directories included, that belongs to somebody else. Not
// promised: anything about a directory that others may write to, as they may replace what was looked at.
std::string FollowLinks(const std::string& path, uid_t user = geteuid());

}  // namespace tavix::daemon
