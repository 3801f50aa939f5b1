#include "programs/bridge/control/Answers.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>

namespace tavix::test {

namespace {

using bridge::BridgeStatus;
using bridge::Conflict;
using bridge::DifferencesAnswer;
using bridge::Rules;
using bridge::Side;
using bridge::TimedConflict;
using nlohmann::json;

TEST(Answers, AStatusHasAllThatIsCounted) {
  BridgeStatus status;
  status.name = "cam";
  status.engine = "mqtt";
  status.link = "lost";
  status.since = 17;
  status.lag = 3;
  status.waiting = 2;
  status.lastError = "no \xFF route";
  EXPECT_EQ(json::parse(ComposeStatusAnswer(status)),
            json::parse(R"({"name":"cam","engine":"mqtt","state":"not in sync","link":"lost","since":17,
                            "daemon":"lost","lag":3,"waiting":2,"conflicts":0,"overridden":0,"refused":0,"held":0,
                            "undecided":0,"leftOut":0,"lastError":"no \\xff route","lastErrorTime":0})"));
}

TEST(Answers, ConflictsShowBothValuesAndWhoWon) {
  const Rules rules({}, {}, {"[*]secret"});
  const std::deque<TimedConflict> conflicts = {{{"Net/A", "mtu", "1", "2", Side::kDevice}, 5},
                                               {{"Net/\xFF", "mtu", std::nullopt, "\xFF", Side::kCentre}, 6},
                                               {{"Net/A", "secret", std::nullopt, std::nullopt, Side::kDevice}, 7}};
  EXPECT_EQ(json::parse(ComposeConflictsAnswer(conflicts, rules)), json::parse(R"({"conflicts":[
        {"time":5,"group":"Net/A","key":"mtu","here":"2","there":"1","winner":"centre"},
        {"time":6,"group":"base64:TmV0L/8=","key":"mtu","here":null,"there":{"base64":"/w=="},"winner":"device"},
        {"time":7,"group":"Net/A","key":"secret","here":{"masked":true},"there":{"masked":true},"winner":"centre"}]})"));
}

TEST(Answers, ConflictsLeaveOutTheOldestThatThereIsNoRoomFor) {
  const std::string large(bridge::kMaxAnswerBytes / 2, 'x');
  const std::deque<TimedConflict> conflicts = {{{"A", "k", large, "", Side::kDevice}, 1},
                                               {{"B", "k", large, "", Side::kDevice}, 2},
                                               {{"C", "k", "1", "", Side::kDevice}, 3}};
  const json answer = json::parse(ComposeConflictsAnswer(conflicts, Rules({}, {}, {})));
  ASSERT_EQ(answer["conflicts"].size(), 2u);
  EXPECT_EQ(answer["conflicts"][0]["group"], "B");
}

TEST(Answers, DifferencesShowWhatEitherEndLacks) {
  DifferencesAnswer answer;
  EXPECT_TRUE(answer.Add({"Net/Eth0", {{"mtu", "1500", std::nullopt, "1500"}}}));
  EXPECT_TRUE(answer.Add({"State/A", {}}));
  EXPECT_EQ(json::parse(answer.Compose()), json::parse(R"({"groups":[{"group":"Net/Eth0",
                            "keys":[{"key":"mtu","here":"1500","there":null,"agreed":"1500"}]},
                            {"group":"State/A","keys":[]}],"more":false})"));
}

TEST(Answers, DifferencesEndBehindTheGroupsThatThereIsRoomFor) {
  DifferencesAnswer many;
  for (size_t i = 0; i < bridge::kMaxGroups; ++i) ASSERT_TRUE(many.Add({std::to_string(i), {}}));
  EXPECT_FALSE(many.Add({"last", {}}));
  EXPECT_EQ(json::parse(many.Compose())["groups"].size(), bridge::kMaxGroups);
  EXPECT_EQ(json::parse(many.Compose())["more"], true);

  DifferencesAnswer large;
  EXPECT_FALSE(large.Add({"A", {{"k", std::string(bridge::kMaxAnswerBytes, 'x'), std::nullopt, std::nullopt}}}));
  EXPECT_EQ(large.Compose(), R"({"groups":[],"more":true})");
}

TEST(Answers, OthersSayHowManyGroupsOrWhatIsWrong) {
  EXPECT_EQ(bridge::ComposeDone(3), R"({"done":true,"groups":3})");
  EXPECT_EQ(bridge::ComposeError("no"), R"({"error":"no"})");
}

}  // namespace

}  // namespace tavix::test
