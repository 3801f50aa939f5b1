#pragma once

#include <string>

#include "tavix/osa/PipeStreamPair.h"
#include "tests/support/BackgroundCall.h"

namespace tavix::settings::server {
struct ServerEnv;
}

namespace tavix::test {

// The client's end of a connection whose handler runs on a thread of its own behind two pipes.
//
// Threads: one may send while another reads.
class PipedHandler {
 public:
  explicit PipedHandler(settings::server::ServerEnv* env);

  // Hangs up and waits for the handler's end.
  ~PipedHandler();

  PipedHandler(const PipedHandler&) = delete;
  PipedHandler& operator=(const PipedHandler&) = delete;

  void Send(const std::string& text);

  // Nothing can be sent any more. What the handler still writes can be read.
  void HangUp();

  // The next line without its line feed; false when the handler has ended and everything was read.
  bool ReadLine(std::string& line);

  // The next lines up to the one that is "last", that one included.
  std::string ReadThrough(const std::string& last);

  // Sends a request that changes nothing and waits for its reply: what was sent before is done then. For connections
  // with no other message on its way.
  void AwaitHandled();

  // Hangs up, throws what Run threw, returns what nobody read.
  std::string Finish();

 private:
  osa::PipeStreamPair _requests;
  osa::PipeStreamPair _replies;
  BackgroundCall _run;
};

}  // namespace tavix::test
