#pragma once

#include <cstddef>

namespace tavix::daemon {

// What one client, and all together, may cost the daemon. Beyond a bound its connection ends with a line in the log;
// beyond one of subscriptions only the request for them is refused.
struct Limits {
  size_t connections = 1024;
  size_t subscriptions = 4096;                     // names and patterns of one connection
  size_t subscriptionBytes = 256 * 1024;           // of these
  size_t allSubscriptionBytes = 16 * 1024 * 1024;  // of those of all connections
  size_t alikePatterns = 4096;                     // of these, that are tried on the same names; 0: any number
  size_t nameBytes = 4 * 1024;                     // of a group's name, a key, a line of a list
  size_t listed = 128 * 1024;                      // names and patterns of one list
  size_t patterns = 256;                           // of these, patterns
  unsigned long long work = 1ull << 34;            // these times the bytes of all groups' names; 0: any
  size_t lineBytes = 16 * 1024 * 1024;             // of one line that it sends
  size_t requestBytes = 64 * 1024 * 1024;          // of one request
  size_t requestSeconds = 60;                      // that a request may stay unfinished
  size_t allRequestBytes = 256 * 1024 * 1024;      // of all unfinished requests
  size_t pauseBytes = 1024 * 1024;                 // unread by it, above which nothing more is read from it
  size_t backlogBytes = 8 * 1024 * 1024;           // unread by it, above which it must make progress
  size_t backlogSeconds = 10;                      // that it may go without
  size_t hardBacklogBytes = 256 * 1024 * 1024;     // unread by it, at most
  size_t heldBacklogBytes = 256 * 1024 * 1024;     // for it, but waiting for the disk
  size_t storeBytes = 256 * 1024 * 1024;           // of the settings in memory, about; a change beyond it is not made
  size_t allBacklogBytes = 512 * 1024 * 1024;      // of all backlogs, held or not
};

}  // namespace tavix::daemon
