#pragma once

#include <memory>

#include "tavix/osa/Export.h"

namespace tavix::settings {

class TavixSettingsClient;

// Keeps a process's logging as one settings group says, its log group:
//
//     log.level    messages up to this level are written; 3 error, 4 warning, 6 information, 8 trace
//     log.syslog   whether to the system log
//     log.stdout   whether to standard output
//     log.file     a file below the directory that core::Logger::SetLogFileDirectory allows; none when missing
//     using_defs   written together with the defaults, never read
//
// A group without log.level is given the defaults: level 3, system log, no standard output.
//
// Threads: changes are followed on the client's own thread.
// Owns:    not the client, which outlives it.
// Errors:  what the client throws while the group is read or written. A client that can't subscribe is no error: one is
//          logged, and later changes are not followed.
class TAVIX_EXPORT LogManager {
 public:
  // name: the log group's.
  LogManager(TavixSettingsClient* client, const char* name);

  // Logging stays as it is.
  ~LogManager();

  LogManager(const LogManager&) = delete;
  LogManager& operator=(const LogManager&) = delete;

 private:
  class TAVIX_LOCAL ChangeCallback;
  std::unique_ptr<ChangeCallback> _pChangeCallback;
};

}  // namespace tavix::settings
