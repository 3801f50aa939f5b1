#pragma once

#include <sys/types.h>

#include <chrono>
#include <set>
#include <string>
#include <vector>

namespace tavix::web {

// What the program was told. A plain value.
struct Options {
  static constexpr char kUnixProxy[] = "unix";  // all that connect to a unix socket

  enum class Action { kServe, kShowHelp, kShowVersion, kHashPassword };

  Action action = Action::kServe;
  std::string listen = "127.0.0.1:7280";
  std::string server;  // the daemon; empty: as the client library finds it
  bool allowsRemote = false;
  std::string passwordFile;
  std::string tokenFile;
  std::set<uid_t> allowedUsers;  // on unix sockets; none: all
  bool isReadOnly = false;
  std::set<std::string> hosts;           // in lower case
  std::set<std::string> trustedProxies;  // addresses, and kUnixProxy
  std::string basePath;                  // "" or "/settings": no '/' at its end
  size_t maxBodyBytes = 1024 * size_t{1024};
  size_t maxAnswerBytes = 16 * size_t{1024} * 1024;
  size_t maxPerAddress = 16;
  bool showsRestricted = false;
  std::chrono::milliseconds timeout{5000};  // of one request to the daemon
  std::string certificateFile;              // of TLS, which all connections use then
  std::string keyFile;

  bool IsEncrypted() const { return !certificateFile.empty(); }
};

}  // namespace tavix::web
