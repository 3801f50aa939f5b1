#include "tavix/settings/server/ChangeRecorder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>
#include <stdexcept>
#include <string>

#include "tests/support/DocumentText.h"

namespace {

using tavix::settings::server::ChangeRecorder;
using tavix::settings::server::ChangeRecorders;
using tavix::test::DocumentOf;
using testing::ElementsAre;
using testing::IsEmpty;

const std::set<std::string> kA{"A"};

TEST(ChangeRecorder, TakesWhatChangedSinceTheLastTime) {
  ChangeRecorders recorders;
  recorders.Note(kA);
  ChangeRecorder recorder(recorders);
  recorders.Note(DocumentOf("[C]\n[B]\nx=1\n"));
  recorders.Note(std::set<std::string>{"B"});
  EXPECT_THAT(recorder.Take(), ElementsAre("B", "C"));
  EXPECT_THAT(recorder.Take(), IsEmpty());
}

TEST(ChangeRecorder, EachTakesForItself) {
  ChangeRecorders recorders;
  ChangeRecorder first(recorders);
  ChangeRecorder second(recorders);
  recorders.Note(kA);
  EXPECT_THAT(first.Take(), ElementsAre("A"));
  EXPECT_THAT(second.Take(), ElementsAre("A"));
}

TEST(ChangeRecorder, IsGoneAfterItsScopeAndAfterAnException) {
  ChangeRecorders recorders;
  EXPECT_FALSE(recorders.AreActive());
  try {
    ChangeRecorder recorder(recorders);
    EXPECT_TRUE(recorders.AreActive());
    throw std::runtime_error("in between");
  } catch (const std::runtime_error&) {
  }
  EXPECT_FALSE(recorders.AreActive());
}

}  // namespace
