#include "tavix/settings/client/Commands.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>
#include <sstream>
#include <string>

#include "tavix/core/IniFile.h"
#include "tavix/osa/Exception.h"
#include "tests/support/DocumentText.h"

namespace {

using tavix::core::IniFile;
using tavix::osa::Exception;
using tavix::settings::client::GetSettingsCommand;
using tavix::settings::client::MergeCommand;
using tavix::settings::client::OverwriteCommand;
using tavix::settings::client::RemoteCommand;
using tavix::settings::client::RestoreToDefaultsCommand;
using tavix::settings::client::TestAndMergeCommand;
using tavix::test::DocumentOf;
using tavix::test::TextOf;

using Groups = std::set<std::string>;

const IniFile kEmpty;

// Counts flushes: a request must leave by one of its own.
class FlushCounter : public std::stringbuf {
 public:
  int sync() override {
    ++flushes;
    textAtLastFlush = str();
    return 0;
  }

  int flushes = 0;
  std::string textAtLastFlush;
};

std::string RequestOf(RemoteCommand& command) {
  FlushCounter buffer;
  std::ostream out(&buffer);
  command.SendRequest(out);
  EXPECT_EQ(buffer.textAtLastFlush, buffer.str());
  return buffer.str();
}

std::string GetRequest(const Groups& groups) {
  GetSettingsCommand command;
  command._groups = &groups;
  return RequestOf(command);
}

std::string MergeRequest(const IniFile& settings, unsigned int flags) {
  MergeCommand command;
  command._settings = &settings;
  command._flags = flags;
  return RequestOf(command);
}

std::string OverwriteRequest(const Groups& groups, const IniFile& settings) {
  OverwriteCommand command;
  command._groups = &groups;
  command._settings = &settings;
  return RequestOf(command);
}

TEST(GetSettingsCommand, AsksForNothingByAnEmptyList) {
  EXPECT_EQ(GetRequest({}), "get delimited\n.\n");
}

TEST(GetSettingsCommand, WritesNamesAndPatternsInAscendingOrder) {
  EXPECT_EQ(GetRequest({"b", "a*", "B", ""}), "get delimited\n\nB\na*\nb\n.\n");
}

TEST(GetSettingsCommand, AReplyIsMergedIntoTheResultAndWhatItDoesNotMentionStays) {
  IniFile result = DocumentOf("[A]\nx=1\ny=1\n[B]\nz=1\n");
  GetSettingsCommand command;
  command._result = &result;
  std::istringstream reply("[A]\nx=2\n[C]\n.\ndata\n");
  EXPECT_TRUE(command.HandleResponse(reply));
  EXPECT_EQ(TextOf(result), "[A]\nx=2\ny=1\n[B]\nz=1\n[C]\n");
}

TEST(GetSettingsCommand, ReadsNothingBehindTheTerminator) {
  IniFile result;
  GetSettingsCommand command;
  command._result = &result;
  std::istringstream reply("[A]\nx=2\n.\nasync change\n");
  command.HandleResponse(reply);
  std::string next;
  std::getline(reply, next);
  EXPECT_EQ(next, "async change");
}

TEST(GetSettingsCommand, AReplyWithoutTerminatorIsReadToTheEndOfTheStream) {
  IniFile result;
  GetSettingsCommand command;
  command._result = &result;
  std::istringstream reply("[A]\nx=2");
  EXPECT_TRUE(command.HandleResponse(reply));
  EXPECT_EQ(TextOf(result), "[A]\nx=2\n");
  EXPECT_FALSE(reply.good());
}

TEST(GetSettingsCommand, AReplyThatCannotBeParsedLeavesTheResultAndIsReadToItsEnd) {
  IniFile result = DocumentOf("[A]\nx=1\n");
  GetSettingsCommand command;
  command._result = &result;
  std::istringstream reply("[A]\nx=2\nno setting\n[B]\n.\nresult\n");
  EXPECT_THAT([&] { command.HandleResponse(reply); },
              testing::ThrowsMessage<Exception>(testing::StartsWith("reply:3: ")));
  EXPECT_EQ(TextOf(result), "[A]\nx=1\n");
  std::string next;
  std::getline(reply, next);
  EXPECT_EQ(next, "result");
}

TEST(MergeCommand, WritesTheDocument) {
  EXPECT_EQ(MergeRequest(DocumentOf("[B]\nx=1\n[A]\ny=2\n"), 0), "merge\n[A]\ny=2\n[B]\nx=1\n.\n");
}

TEST(MergeCommand, AnEmptyDocumentIsTheTerminatorAlone) {
  EXPECT_EQ(MergeRequest(kEmpty, 0), "merge\n.\n");
}

TEST(MergeCommand, OnlyTheLowestFlagGoesOnTheWire) {
  EXPECT_EQ(MergeRequest(kEmpty, 1), "merge nopersist\n.\n");
  EXPECT_EQ(MergeRequest(kEmpty, 2), "merge\n.\n");
  EXPECT_EQ(MergeRequest(kEmpty, 0xFFFFFFFE), "merge\n.\n");
  EXPECT_EQ(MergeRequest(kEmpty, 0xFFFFFFFF), "merge nopersist\n.\n");
}

TEST(TestAndMergeCommand, WritesTheConditionAndThenTheChange) {
  const IniFile test = DocumentOf("[A]\nx=1\n");
  const IniFile change = DocumentOf("[A]\nx=2\n");
  TestAndMergeCommand command;
  command._test = &test;
  command._settings = &change;
  EXPECT_EQ(RequestOf(command), "test-and-merge\n[A]\nx=1\n.\n[A]\nx=2\n.\n");
  command._test = command._settings = &kEmpty;
  EXPECT_EQ(RequestOf(command), "test-and-merge\n.\n.\n");
}

TEST(TestAndMergeCommand, OnlyOkIsASuccess) {
  EXPECT_FALSE(TestAndMergeCommand()._success);
  for (const std::string outcome : {"failure", "OK", "ok ", " ok", "ok\r", "okay", ""}) {
    TestAndMergeCommand command;
    std::istringstream reply(outcome + "\n");
    EXPECT_FALSE(command.HandleResponse(reply)) << outcome;
    EXPECT_FALSE(command._success) << outcome;
  }
  TestAndMergeCommand command;
  std::istringstream reply("ok\n");
  EXPECT_TRUE(command.HandleResponse(reply));
  EXPECT_TRUE(command._success);
}

TEST(TestAndMergeCommand, ReadsOneLineOnly) {
  TestAndMergeCommand command;
  std::istringstream reply("ok\ndata\n");
  command.HandleResponse(reply);
  std::string next;
  std::getline(reply, next);
  EXPECT_EQ(next, "data");
}

TEST(OverwriteCommand, WritesTheGroupsAndThenTheDocument) {
  EXPECT_EQ(OverwriteRequest({"B", "A"}, DocumentOf("[A]\nx=1\n")), "overwrite\nA\nB\n.\n[A]\nx=1\n.\n");
  EXPECT_EQ(OverwriteRequest({"A"}, kEmpty), "overwrite\nA\n.\n.\n");
  EXPECT_EQ(OverwriteRequest({}, kEmpty), "overwrite\n.\n.\n");
}

TEST(RestoreToDefaultsCommand, WritesTheGroups) {
  const Groups groups{"Net/*", "A"};
  RestoreToDefaultsCommand command;
  command._groups = &groups;
  EXPECT_EQ(RequestOf(command), "restore\nA\nNet/*\n.\n");
}

TEST(RemoteCommand, OneWithoutAReplyReadsNothingAndSucceeds) {
  MergeCommand merge;
  OverwriteCommand overwrite;
  RestoreToDefaultsCommand restore;
  for (RemoteCommand* command : std::initializer_list<RemoteCommand*>{&merge, &overwrite, &restore}) {
    std::istringstream stream("data\n");
    EXPECT_TRUE(command->_responseKeyword.empty());
    EXPECT_TRUE(command->HandleResponse(stream));
    EXPECT_EQ(stream.tellg(), 0);
  }
}

TEST(WriteSubscribeRequest, WritesTheGroups) {
  FlushCounter buffer;
  std::ostream out(&buffer);
  tavix::settings::client::WriteSubscribeRequest(out, {"b", "a*"});
  EXPECT_EQ(buffer.textAtLastFlush, "subscribe\na*\nb\n.\n");
}

}  // namespace
