#include "tavix/settings/server/ClientState.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

namespace {

using tavix::core::IniFile;
using tavix::settings::server::ChangeOrigin;
using tavix::settings::server::ClientIdentity;
using tavix::settings::server::ClientState;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using Connection = ClientIdentity::Connection;

IniFile::KeyMap IdentityOf(const ClientState& state) {
  IniFile::KeyMap lines;
  state.AddIdentity(lines);
  return lines;
}

std::string TakeReasonOf(ClientState& state) {
  IniFile::KeyMap lines;
  state.TakeReason(lines);
  return lines.empty() ? "none" : lines["reason"];
}

const std::string kLongNote(ClientState::kMaxNoteBytes + 1, 'n');

TEST(ClientState, IdentityIsThatOfTheProcessItselfAtFirst) {
  EXPECT_THAT(IdentityOf(ClientState()), ElementsAre(Pair("connection", "local")));
}

TEST(ClientState, IdentityOfAUnixSocketHasAllThatTheKernelKnows) {
  ClientState state;
  state.SetIdentity({Connection::kUnix, 0, 100, 812}, {4, 24});
  EXPECT_THAT(IdentityOf(state), ElementsAre(Pair("connection", "unix"), Pair("group", "100"), Pair("groups", "4,24"),
                                             Pair("process", "812"), Pair("user", "0")));
}

TEST(ClientState, IdentityOverTcpIsNobody) {
  ClientState state;
  state.SetIdentity({Connection::kTcp}, {});
  EXPECT_THAT(IdentityOf(state), ElementsAre(Pair("connection", "tcp"), Pair("user", "nobody")));
}

TEST(ClientState, NoteGoesWithTheNextChangeAlone) {
  ClientState state;
  state.SetIdentity({Connection::kUnix, 7}, {});
  ASSERT_TRUE(state.TakeNote("first"));
  ASSERT_TRUE(state.TakeNote("site 4"));
  const ChangeOrigin origin = state.BeginChange("merge");
  EXPECT_EQ(origin.note, "site 4");
  EXPECT_EQ(origin.command, "merge");
  EXPECT_EQ(origin.client.user, 7U);
  EXPECT_EQ(state.BeginChange("merge").note, "");
}

TEST(ClientState, NoteThatIsTooLongTakesTheEarlierOneAwayAndLeavesAReason) {
  ClientState state;
  EXPECT_TRUE(state.TakeNote(kLongNote.substr(1)));
  EXPECT_FALSE(state.TakeNote(kLongNote));
  EXPECT_EQ(TakeReasonOf(state), "bound: a note of 257 bytes is longer than the 256 allowed");
  EXPECT_EQ(state.BeginChange("merge").note, "");
}

TEST(ClientState, ReasonIsGivenOnce) {
  ClientState state;
  EXPECT_EQ(TakeReasonOf(state), "none");
  state.Refuse("bound: x");
  EXPECT_EQ(TakeReasonOf(state), "bound: x");
  EXPECT_EQ(TakeReasonOf(state), "none");
}

TEST(ClientState, NextRequestThatCanBeRefusedForgetsTheReason) {
  ClientState state;
  state.Refuse("bound: x");
  state.BeginChange("merge");
  EXPECT_EQ(TakeReasonOf(state), "none");
  state.Refuse("bound: x");
  state.BeginRequest();
  EXPECT_EQ(TakeReasonOf(state), "none");
  state.Refuse("bound: x");
  EXPECT_TRUE(state.TakeNote("n"));
  EXPECT_EQ(TakeReasonOf(state), "none");
}

TEST(ClientState, ReasonOfARefusedNoteOutlivesTheChangeThatItWasFor) {
  ClientState state;
  ASSERT_FALSE(state.TakeNote(kLongNote));
  state.BeginChange("merge");
  EXPECT_THAT(TakeReasonOf(state), testing::StartsWith("bound: a note"));
  ASSERT_FALSE(state.TakeNote(kLongNote));
  state.BeginChange("merge");
  state.BeginChange("merge");
  EXPECT_EQ(TakeReasonOf(state), "none") << "the second change had no note to lose";
}

TEST(ClientState, NoteOfTheGreatestLengthIsKept) {
  ClientState state;
  EXPECT_TRUE(state.TakeNote(kLongNote.substr(1)));
  EXPECT_EQ(state.BeginChange("merge").note, kLongNote.substr(1));
}

TEST(ClientState, ReasonThatIsTooLongIsCut) {
  ClientState state;
  state.Refuse(std::string(ClientState::kMaxReasonBytes + 1, 'r'));
  EXPECT_EQ(TakeReasonOf(state), std::string(ClientState::kMaxReasonBytes, 'r'));
}

}  // namespace
