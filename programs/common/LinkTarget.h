#pragma once

#include <sys/types.h>
#include <unistd.h>

#include <string>

#include "tavix/osa/Exception.h"

namespace tavix::programs {

// A link on the way belongs to neither root nor the process's user, who did not choose where it leads. A plain value.
class ForeignLink : public osa::Exception {
 public:
  explicit ForeignLink(const std::string& message) : Exception(message) {}
};

// Where "path" leads when it is a link, or a chain of them; what stands at its end need not exist. The links of
// directories stay in it. Behind as many links as the kernel follows, as in a circle, it is still a link, which is left
// for the first access to report.
//
// The daemon keeps its lock beside the end of that way, and the command looks for it there.
std::string FollowLinks(const std::string& path);

// The same for a process that others must not lead elsewhere. user: the process's.
//
// Throws ForeignLink, which names the first link on the way, directories included, that belongs to somebody else. Not
// promised: anything about a directory that others may write to, as they may replace what was looked at.
std::string FollowOwnLinks(const std::string& path, uid_t user = geteuid());

}  // namespace tavix::programs
