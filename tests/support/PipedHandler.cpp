#include "tests/support/PipedHandler.h"

#include <gtest/gtest.h>

#include "tavix/settings/server/ClientHandler.h"

namespace tavix::test {

namespace {

// Tells the client of the handler's end, however it comes.
class ClosedAtEnd {
 public:
  explicit ClosedAtEnd(osa::PipeStreamPair& pipe) : _pipe(pipe) {}
  ~ClosedAtEnd() { _pipe.ClosePipe(); }

  ClosedAtEnd(const ClosedAtEnd&) = delete;
  ClosedAtEnd& operator=(const ClosedAtEnd&) = delete;

 private:
  osa::PipeStreamPair& _pipe;
};

}  // namespace

PipedHandler::PipedHandler(settings::server::ServerEnv* env)
    : _run([this, env] {
        ClosedAtEnd closed(_replies);
        settings::server::ClientHandler(env, _requests.GetIstream(), _replies.GetOstream()).Run();
      }) {}

PipedHandler::~PipedHandler() {
  HangUp();
}

void PipedHandler::Send(const std::string& text) {
  *_requests.GetOstream() << text << std::flush;
}

void PipedHandler::HangUp() {
  _requests.ClosePipe();
}

bool PipedHandler::ReadLine(std::string& line) {
  return static_cast<bool>(std::getline(*_replies.GetIstream(), line));
}

std::string PipedHandler::ReadThrough(const std::string& last) {
  std::string text;
  for (std::string line; ReadLine(line);) {
    text += line + '\n';
    if (line == last) break;
  }
  return text;
}

void PipedHandler::AwaitHandled() {
  Send("get delimited\n.\n");
  EXPECT_EQ(ReadThrough("."), "data\n.\n");
}

std::string PipedHandler::Finish() {
  HangUp();
  _run.Join();
  std::string rest;
  for (std::string line; ReadLine(line);) rest += line + '\n';
  return rest;
}

}  // namespace tavix::test
