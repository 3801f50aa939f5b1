#pragma once

#include <sys/types.h>

namespace tavix::settings::server {

// Who is at the other end of a connection, as the system knows it. A plain value.
struct ClientIdentity {
  enum class Connection {
    kUnix,    // a unix socket: the kernel knows the user, the group and the process
    kTcp,     // the network: nobody is known
    kLocal,   // the store's own process
    kDaemon,  // no client: the host of the store acts by itself
  };

  static constexpr uid_t kNoUser = static_cast<uid_t>(-1);
  static constexpr gid_t kNoGroup = static_cast<gid_t>(-1);
  static constexpr pid_t kNoProcess = 0;

  // As `info whoami` and records of changes spell it.
  static constexpr const char* NameOf(Connection connection) {
    switch (connection) {
      case Connection::kUnix:
        return "unix";
      case Connection::kTcp:
        return "tcp";
      case Connection::kLocal:
        return "local";
      case Connection::kDaemon:
        break;
    }
    return "daemon";
  }

  Connection connection = Connection::kLocal;
  uid_t user = kNoUser;
  gid_t group = kNoGroup;
  pid_t process = kNoProcess;
};

}  // namespace tavix::settings::server
