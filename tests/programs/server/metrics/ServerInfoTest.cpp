#include "programs/server/metrics/ServerInfo.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace tavix::test {

namespace {

using core::IniFile;
using daemon::Counters;
using daemon::ServerInfo;
using settings::server::SettingsManager;
using testing::AllOf;
using testing::Contains;
using testing::Key;
using testing::Not;
using testing::Pair;

const daemon::KeptChanges kKept{"/var/user.ini", "250ms"};

IniFile::KeyMap FiguresOf(const Counters& counters, const daemon::KeptChanges& kept) {
  const SettingsManager store;
  IniFile::KeyMap figures;
  ServerInfo(counters, store, kept).AddFigures(figures);
  return figures;
}

}  // namespace

TEST(ServerInfo, OfAServerThatKeepsNothingSaysSo) {
  const Counters counters;
  EXPECT_THAT(FiguresOf(counters, {}), AllOf(Contains(Pair("kept", "false")), Not(Contains(Key("user-settings"))),
                                             Not(Contains(Key("saved"))), Not(Contains(Key("failed-saves")))));
}

TEST(ServerInfo, OfAServerThatHasSavedEverythingSaysSinceWhen) {
  Counters counters;
  counters.lastSave.Set(5);
  EXPECT_THAT(
      FiguresOf(counters, kKept),
      AllOf(Contains(Pair("kept", "true")), Contains(Pair("user-settings", "/var/user.ini")),
            Contains(Pair("durability", "250ms")), Contains(Pair("saved", "true")), Contains(Pair("last-save", "5")),
            Contains(Pair("failed-saves", "0")), Not(Contains(Key("unsaved-since"))), Not(Contains(Key("failure")))));
}

TEST(ServerInfo, OfAServerWithChangesThatTheDiskLacksSaysSinceWhen) {
  Counters counters;
  counters.unsavedSince.Set(7);
  EXPECT_THAT(FiguresOf(counters, kKept), AllOf(Contains(Pair("saved", "false")), Contains(Pair("unsaved-since", "7")),
                                                Not(Contains(Key("last-save"))), Not(Contains(Key("failure")))));
}

TEST(ServerInfo, OfAServerWhoseDiskFailsHasTheReasonUntilItWorks) {
  Counters counters;
  counters.CountFailedSave();
  counters.failure.Set("no room");
  EXPECT_THAT(FiguresOf(counters, kKept), AllOf(Contains(Pair("saved", "false")), Contains(Pair("failed-saves", "1")),
                                                Contains(Pair("failure", "no room"))));
  counters.failure.Set("");
  EXPECT_THAT(FiguresOf(counters, kKept), AllOf(Contains(Pair("saved", "true")), Not(Contains(Key("failure")))));
}

TEST(ServerInfo, CountsWhatWasCutByReason) {
  Counters counters;
  counters.Count(daemon::CutReason::kHttp);
  const IniFile::KeyMap figures = FiguresOf(counters, {});
  for (size_t i = 0; i < static_cast<size_t>(daemon::CutReason::kCount); ++i) {
    const auto reason = static_cast<daemon::CutReason>(i);
    EXPECT_THAT(figures,
                Contains(Pair(std::string("cut.") + NameOf(reason), reason == daemon::CutReason::kHttp ? "1" : "0")));
  }
}

TEST(CurrentFailure, KeepsThePartOfALongReasonThatItHasRoomFor) {
  daemon::CurrentFailure failure;
  failure.Set(std::string(2000, 'x'));
  EXPECT_EQ(failure.Get(), std::string(daemon::CurrentFailure::kMaxBytes, 'x'));
  failure.Set("short");
  EXPECT_EQ(failure.Get(), "short");
}

}  // namespace tavix::test
