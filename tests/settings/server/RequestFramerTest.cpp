#include "tavix/settings/server/RequestFramer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace tavix::test {

using settings::server::RequestFramer;

namespace {

const std::vector<std::string> kIniSession{
    "get delimited\nNet\n*\n.\n",
    "\n",
    ".\n",
    "bogus words\n",
    "merge nopersist\n[A]\nx=1\n.\n",
    "merge\n.\n",
    "test-and-merge\n[A]\nx=1\n.\n[A]\nx=2\n.\n",
    "test-and-merge\n.\n.\n",
    " subscribe\r\nA\n..\n. \n.\n",
    "overwrite\nA\n.\n[A]\n.x=1\n.\n",
    "restore\n.\n",
    "note overwrite\n",
    "amend\n[A]\nx=1\n.\n[A]\ny=\n.\n[A]\nx=2\n.\n[B]\n.\n.\n",
    "amend\n.\n.\n.\n.\n.\n",
    "serialize\tini\n",
    "serialize nonsense\n",
    "info subscribed\n",
    "dump all\n",
    "quit\n",
};

const std::vector<std::string> kPhpArraySession{
    "serialize phparray\n",
    "merge\na:1:{s:1:\"A\";a:1:{s:1:\"x\";s:6:\"}\n.\n\";\";}}",
    "\n",
    ".\n",
    "merge\na:0:{}",
    "\n",
    "test-and-merge\na:0:{}\n\n.\n a:1:{ s:0:\"\" ; a : 0 : { } }",
    "\n",
    ".\n",
    "test-and-merge\na:0:{}a:0:{}",
    "overwrite\nA\n.\na:2:{s:1:\"A\";a:0:{}s:1:\"B\";a:2:{s:0:\"\";s:0:\"\";s:1:\"k\";s:1:\"v\";}}",
    "get\nA\n.\n",
    "get delimited\nNet\n*\n.\n",
    "subscribe\nA\n.\n",
    "restore\nA*\n.\n",
    "info subscribed\n",
    "note a:1:{\n",
    "amend\na:0:{}\n.\na:0:{}a:1:{s:1:\"A\";a:0:{}}\n.\na:0:{}\n\n.\na:0:{}",
    "\n",
    ".\n",
    "dump\n",
    "bogus\n",
    "quit\n",
    "serialize nonsense\n",
    "merge nopersist\na:1:{s:0:\"\";a:0:{}}",
    "serialize ini\n",
    "merge\n.\n",
};

// Shows the bytes as a connection does, "step" more at a time, and collects the requests.
std::vector<std::string> Frame(const std::string& bytes, size_t step) {
  RequestFramer framer;
  std::vector<std::string> requests;
  std::string received;
  for (size_t at = 0; at < bytes.size(); at += step) {
    received += bytes.substr(at, step);
    while (const size_t length = framer.FindEnd(received)) {
      requests.push_back(received.substr(0, length));
      received.erase(0, length);
    }
  }
  return requests;
}

std::string Join(const std::vector<std::string>& parts) {
  std::string joined;
  for (const std::string& part : parts) joined += part;
  return joined;
}

}  // namespace

TEST(RequestFramer, FindsEveryRequestHoweverItIsCut) {
  for (const auto& session : {kIniSession, kPhpArraySession}) {
    const std::string bytes = Join(session);
    for (size_t step = 1; step <= bytes.size(); ++step) EXPECT_EQ(Frame(bytes, step), session) << step;
  }
}

// The first piece ends anywhere, the second anywhere behind it; the rest of the request comes with the next one.
TEST(RequestFramer, FindsARequestThatComesInThreePiecesWhereverItIsCut) {
  for (const auto& session : {kIniSession, kPhpArraySession}) {
    RequestFramer before;
    for (const std::string& request : session) {
      for (size_t first = 0; first < request.size(); ++first) {
        for (size_t second = first; second < request.size(); ++second) {
          RequestFramer framer = before;
          ASSERT_EQ(framer.FindEnd(request.substr(0, first)), 0u) << request;
          ASSERT_EQ(framer.FindEnd(request.substr(0, second)), 0u) << request;
          ASSERT_EQ(framer.FindEnd(request + "get\n.\n"), request.size()) << request;
        }
      }
      before.FindEnd(request);
    }
  }
}

TEST(RequestFramer, SessionsHoldEveryCommand) {
  for (const char* word : {"quit", "dump", "merge", "test-and-merge", "subscribe", "get", "overwrite", "serialize",
                           "restore", "info", "note", "amend"}) {
    const auto isIt = testing::Contains(testing::ContainsRegex(std::string("^ ?") + word + "[ \n\t\r]"));
    EXPECT_THAT(kIniSession, isIt);
    EXPECT_THAT(kPhpArraySession, isIt);
  }
}

TEST(RequestFramer, FindsNothingInABeginning) {
  const RequestFramer ini;
  RequestFramer phpArray;
  phpArray.FindEnd("serialize phparray\n");
  for (const std::string& request : kIniSession) {
    RequestFramer framer = ini;
    for (size_t size = 0; size < request.size(); ++size) EXPECT_EQ(framer.FindEnd(request.substr(0, size)), 0u);
  }
  for (const std::string& request : kPhpArraySession) {
    RequestFramer framer = phpArray;
    for (size_t size = 0; size < request.size(); ++size) EXPECT_EQ(framer.FindEnd(request.substr(0, size)), 0u);
    phpArray.FindEnd(request);
  }
}

TEST(RequestFramer, PayloadThatCanNotBeParsedEndsWhereThatShows) {
  for (const char* payload : {"b", "a:x", "a:1:{s:1:\"A\";a:1:{s:2:\"ip\";}", "a:4294967296", "a:1:{s:1:\"AB", "a:+-",
                              "a:- ", "a:0:{}x", "a:0:{}\n.\n.", "a:0:{}a:0:{x"}) {
    RequestFramer framer;
    framer.FindEnd("serialize phparray\n");
    const std::string request = std::string("test-and-merge\n") + payload;
    EXPECT_EQ(framer.FindEnd(request + "rest"), request.size()) << payload;
  }
}

// As the serializer reads them.
TEST(RequestFramer, TakesNumbersWithASign) {
  for (const char* payload : {"a:+1:{s:+1:\"A\";a: -0:{}}", "a:-4294967295:{s:01:\"A\";a:0:{}}"}) {
    RequestFramer framer;
    framer.FindEnd("serialize phparray\n");
    const std::string request = std::string("merge\n") + payload;
    EXPECT_EQ(framer.FindEnd(request + "rest"), request.size()) << payload;
  }
}

TEST(RequestFramer, TellsCommandsFromOtherLines) {
  RequestFramer framer;
  for (const char* request : {"get\n.\n", "merge\n.\n", "serialize nonsense\n", "info\n", " quit\n", "dump\n"}) {
    ASSERT_GT(framer.FindEnd(request), 0u) << request;
    EXPECT_TRUE(framer.IsCommand()) << request;
  }
  for (const char* line : {"\n", ".\n", "GET\n", "getx\n", "[A]\n"}) {
    ASSERT_GT(framer.FindEnd(line), 0u) << line;
    EXPECT_FALSE(framer.IsCommand()) << line;
  }
}

TEST(RequestFramer, TellsHowLongTheUnfinishedLineIs) {
  RequestFramer framer;
  EXPECT_EQ(framer.FindEnd("merge\n[A]\nx="), 0u);
  EXPECT_EQ(framer.GetUnfinishedLine("merge\n[A]\nx="), 2u);
}

}  // namespace tavix::test
