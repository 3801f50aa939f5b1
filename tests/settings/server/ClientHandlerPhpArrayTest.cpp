#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "tavix/osa/Exception.h"
#include "tests/support/DocumentText.h"
#include "tests/support/ServedStore.h"

// Connections that speak "phparray".

namespace {

using tavix::osa::Exception;
using tavix::test::AllSettingsOf;
using tavix::test::ServedStore;

const std::string kSwitch = "serialize phparray\n";
const std::string kIs1 = R"(a:1:{s:1:"A";a:1:{s:1:"x";s:1:"1";}})";
const std::string kIs2 = R"(a:1:{s:1:"A";a:1:{s:1:"x";s:1:"2";}})";

TEST(ClientHandler, GetInPhpArrayStandsBetweenKeywordAndTerminator) {
  ServedStore served({"[A]\nx=1\n"});
  EXPECT_EQ(served.Serve(kSwitch + "get delimited\nA\n.\n"), "data\n" + kIs1 + "\n\n.\n");
  EXPECT_EQ(served.Serve(kSwitch + "get delimited\nNone\n.\n"), "data\na:0:{}\n\n.\n");
}

// Deliberate: without names and patterns no groups are written at all, not even an empty array.
TEST(ClientHandler, GetOfAnEmptyListInPhpArrayHasNoArray) {
  ServedStore served({"[A]\nx=1\n"});
  EXPECT_EQ(served.Serve(kSwitch + "get delimited\n.\n"), "data\n.\n");
}

TEST(ClientHandler, SwitchesBackToSettingsText) {
  ServedStore served({"[A]\nx=1\n"});
  EXPECT_EQ(served.Serve(kSwitch + "serialize ini\nget delimited\nA\n.\n"), "data\n[A]\nx=1\n.\n");
}

TEST(ClientHandler, DumpAndInfoAreSettingsTextAlways) {
  ServedStore served({"[A]\nx=1\n"}, "[B]\n");
  EXPECT_EQ(served.Serve(kSwitch + "dump\ndump all\ninfo subscribed\n"),
            "[B]\n.\n[A]\nx=1\n[B]\n.\nSubscribed groups\n-----------------\n\n");
}

TEST(ClientHandler, MergeInPhpArrayWithEveryFramingLeavesTheConnectionInStep) {
  for (const char* end : {"\n.\n", "\n\n.\n", "\n", "\n\n"}) {
    ServedStore served;
    EXPECT_EQ(served.Serve(kSwitch + "merge\n" + kIs1 + end + "get delimited\nA\n.\n"), "data\n" + kIs1 + "\n\n.\n");
  }
}

TEST(ClientHandler, TestAndMergeInPhpArrayWithAndWithoutTerminatorsBetween) {
  for (const char* between : {"\n.\n", "\n\n.\n", "\n", ""}) {
    ServedStore served({"[A]\nx=1\n"});
    const std::string request = "test-and-merge\n" + kIs1 + between + kIs2 + "\n.\n";
    EXPECT_EQ(served.Serve(kSwitch + request + request), "result\nok\nresult\nfailure\n") << between;
    EXPECT_EQ(AllSettingsOf(served.store), "[A]\nx=2\n") << between;
  }
}

TEST(ClientHandler, OverwriteInPhpArrayHasAPlainGroupList) {
  ServedStore served({"[A]\nx=1\n[B]\ny=1\n"});
  EXPECT_EQ(served.Serve(kSwitch + "overwrite\nB\n.\n" + kIs2 + "\n.\ndump all\n"), "[A]\nx=2\n.\n");
}

TEST(ClientHandler, AMalformedPhpArrayEndsTheConnectionAndChangesNothing) {
  const std::string bad = R"(a:1:{s:1:"A";a:1:{s:1:"x";s:1:"9";x)";
  for (const std::string& request : {"merge\n" + bad, "merge nopersist\n" + bad, "test-and-merge\n" + bad,
                                     "test-and-merge\n" + kIs1 + "\n.\n" + bad, "overwrite\nA\n.\n" + bad}) {
    ServedStore served({"[A]\nx=1\n"});
    EXPECT_THAT([&] { served.Serve(kSwitch + request + "\n.\n"); },
                testing::ThrowsMessage<Exception>("expected: '}' but got: 'x'"))
        << request;
    EXPECT_EQ(AllSettingsOf(served.store), "[A]\nx=1\n") << request;
    EXPECT_EQ(served.persister.CountSaves(), 0) << request;
  }
}

TEST(ClientHandler, SettingsTextOnAPhpArrayConnectionIsMalformed) {
  ServedStore served;
  EXPECT_THAT([&] { served.Serve(kSwitch + "merge\n[A]\nx=1\n.\n"); },
              testing::ThrowsMessage<Exception>("expected: 'a' but got: '['"));
  EXPECT_THAT([&] { served.Serve(kSwitch + "merge\n.\n"); },
              testing::ThrowsMessage<Exception>("expected: 'a' but got: '.'"));
}

TEST(ClientHandler, AGroupNameThatCanNotStandOnALineIsRefusedInPhpArrayToo) {
  for (const char* payload : {"a:1:{s:3:\"A\nB\";a:0:{}}", "a:1:{s:1:\".\";a:0:{}}", "a:1:{s:1:\"\n\";a:0:{}}"}) {
    ServedStore served({"[A]\nx=1\n"});
    EXPECT_THAT([&] { served.Serve(kSwitch + "overwrite\nA\n.\n" + payload + "\n.\n"); },
                testing::ThrowsMessage<Exception>(testing::HasSubstr("can't stand on a line of its own")));
    EXPECT_EQ(AllSettingsOf(served.store), "[A]\nx=1\n");
  }
}

TEST(ClientHandler, ARefusedGroupNameIsShownInPrintableForm) {
  ServedStore served;
  EXPECT_THAT([&] { served.Serve(kSwitch + "merge\na:1:{s:3:\"A\nB\";a:0:{}}\n.\n"); },
              testing::ThrowsMessage<Exception>("Group name \"A\\x0aB\" can't stand on a line of its own"));
}

TEST(ClientHandler, ANoticeOnAPhpArrayConnectionIsInPhpArray) {
  ServedStore served({"[A]\nx=1\n"});
  EXPECT_EQ(served.Serve(kSwitch + "subscribe\nA\n.\nmerge\n" + kIs2 + "\n.\n"),
            "async change\nA\n.\n" + kIs2 + "\n\n.\n");
}

}  // namespace
