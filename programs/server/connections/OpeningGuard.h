#pragma once

#include <string_view>

namespace tavix::daemon {

// Recognises other protocols by what their clients send first. Such a connection is to be ended: a web page must not be
// able to write settings, and a TLS client would only wait. A mistyped command is none of them.
//
// It looks until the connection's first command. What comes behind that is never looked at.
//
// Threads: one at a time.
class OpeningGuard {
 public:
  // received: everything that was not handled yet. Whether the connection begins with a TLS handshake.
  bool IsTls(std::string_view received) const { return !_hasRequest && BeginsLikeTls(received); }

  // To be called with each request. isCommand: whether it begins with a command; else it is one line. Whether it is
  // HTTP, or a protocol that looks like it, such as RTSP and SIP.
  bool IsHttp(std::string_view request, bool isCommand) { return !_hasCommand && TakeOpening(request, isCommand); }

 private:
  static bool BeginsLikeTls(std::string_view received);
  bool TakeOpening(std::string_view request, bool isCommand);

  bool _hasRequest = false;  // of any kind
  bool _hasCommand = false;
};

}  // namespace tavix::daemon
