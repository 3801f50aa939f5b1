#include "programs/server/connections/OpeningGuard.h"

#include <gtest/gtest.h>

#include <string>

#include "tavix/settings/server/RequestFramer.h"

namespace tavix::test {

namespace {

using daemon::OpeningGuard;

// Whether a connection that begins with these bytes ends, when they come in parts of that length.
bool Ends(const std::string& bytes, size_t part) {
  OpeningGuard guard;
  settings::server::RequestFramer framer;
  std::string input;
  for (size_t at = 0; at < bytes.size(); at += part) {
    input += bytes.substr(at, part);
    if (guard.IsTls(input)) return true;
    for (size_t length; (length = framer.FindEnd(input)) > 0; input.erase(0, length)) {
      if (guard.IsHttp(input.substr(0, length), framer.IsCommand())) return true;
    }
  }
  return false;
}

}  // namespace

TEST(OpeningGuard, EndsWhatOtherProtocolsBeginWith) {
  for (const char* opening : {
           "GET / HTTP/1.1\r\n",
           "GET / HTTP/1.1\n",
           "GET / http/1.1\r\n",
           "get / Http/2\r\n.\n",
           "POST /x HTTP/1.1\r\nHost: x\r\n\r\nmerge\n",
           "\r\n\r\nPOST /x HTTP/1.1\r\n",
           "\n \t\nGET /a b c HTTP/1.0\r\n",
           "bogus\nGET / HTTP/1.1\r\n",
           "OPTIONS rtsp://camera/stream RTSP/1.0\r\n",
           "REGISTER sip:registrar.example SIP/2.0\r\n",
           "M-SEARCH * SSDP/1.1\r\n",
           "describe * rtsp/10.25\r\n",
           "GET /\r\n",
           "GET /index.html\n",
           "CONNECT http://example.org\r\n",
           "Host: example.org\r\n",
           "\nhost: example.org\r\n",
           "Content-Length: 12\r\n",
           "merge / HTTP/1.1\r\nHost: x\r\n\r\n[A]\nx=1\n.\n",
           "dump / HTTP/1.1\r\n",
           "\x16\x03\x01\x02",
       }) {
    EXPECT_TRUE(Ends(opening, 1000)) << opening;
    EXPECT_TRUE(Ends(opening, 1)) << opening;
  }
}

TEST(OpeningGuard, LetsMistypedCommandsPass) {
  for (const char* opening : {
           "GET delimited\nget delimited\n.\n",
           "GET\n",
           "bogus\n[A]\nx=1\n.\n",
           "\n.\n\r\n",
           "GET / delimited\n",
           "Get /\n",
           "GET a/b\n",
           "GET / HTTP\n",
           "GET HTTP/1.1\n",
           "x=the firmware foo/1.0\n",
           "one two foo/1\n",
           "one two foo/1.\n",
           "one two foo/.1\n",
           "one two /1.0\n",
           "one two three foo/1.0\n",
           "Hosts: x\n",
           "x Host: y\n",
           "\x16\n",
           "a\x16\x03\n",
       }) {
    EXPECT_FALSE(Ends(opening, 1000)) << opening;
    EXPECT_FALSE(Ends(opening, 1)) << opening;
  }
}

TEST(OpeningGuard, LooksAtNothingBehindTheFirstCommand) {
  for (const char* command : {"get delimited\n.\n", "info\n", "serialize ini\n", "merge nopersist foo/1.0\n.\n"}) {
    for (const char* line : {"GET / HTTP/1.1\n", "GET /\n", "Host: x\n", "\x16\x03\n"})
      EXPECT_FALSE(Ends(std::string("bogus\n") + command + line, 1)) << command << line;
  }
}

TEST(OpeningGuard, LooksAtNoLineOfAList) {
  EXPECT_FALSE(Ends("get delimited\nGET / HTTP/1.1\nHost: x\n.\n", 1000));
}

}  // namespace tavix::test
