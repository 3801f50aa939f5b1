#pragma once

#include <functional>
#include <string>

#include "programs/server/persistence/FileSystem.h"
#include "tavix/osa/Exception.h"

namespace tavix::daemon {

// Why a start must end before it touches the user settings: what it would do without them could not be undone.
// A plain value.
class UserSettingsRefused : public osa::Exception {
 public:
  enum class Reason {
    kNotOurs,      // what stands there was never written by this daemon
    kNoRights,     // the daemon may not read it
    kNoResources,  // descriptors or memory ran out; a later start may succeed
  };

  UserSettingsRefused(Reason reason, const std::string& message) : Exception(message), _reason(reason) {}

  Reason GetReason() const { return _reason; }

 private:
  Reason _reason;
};

// Reads a file of the user settings at the start. An error may pass, so the read is retried three times within a
// second.
//
// Errors: UserSettingsRefused that names the file when the reason is not the disk; an older state must not take the
//         place of a file that is whole. What the disk can't read is the content's problem.
FileContent ReadAtStart(FileSystem& files, const std::string& path);

// The same for another way to read, which begins anew each time. name: of the file in messages.
FileContent ReadAtStart(const std::string& name, const std::function<FileContent()>& read);

}  // namespace tavix::daemon
