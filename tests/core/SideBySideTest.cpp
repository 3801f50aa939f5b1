#include "tavix/core/SideBySide.h"

#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>
#include <string>

namespace {

using tavix::core::RunSideBySide;

void Throw(const char* what) {
  throw std::runtime_error(what);
}

std::string WhatIsThrown(const std::function<void()>& first, const std::function<void()>& second) {
  try {
    RunSideBySide(first, second);
  } catch (const std::exception& exception) {
    return exception.what();
  }
  return "";
}

TEST(SideBySide, DoesBothBeforeItReturns) {
  int first = 0;
  int second = 0;
  RunSideBySide([&] { first = 1; }, [&] { second = 2; });
  EXPECT_EQ(first, 1);
  EXPECT_EQ(second, 2);
}

TEST(SideBySide, PassesOnAnExceptionOnceBothHaveEnded) {
  bool done = false;
  EXPECT_EQ(WhatIsThrown([] { Throw("first"); }, [&] { done = true; }), "first");
  EXPECT_TRUE(done);
  done = false;
  EXPECT_EQ(WhatIsThrown([&] { done = true; }, [] { Throw("second"); }), "second");
  EXPECT_TRUE(done);
}

TEST(SideBySide, OfTwoExceptionsPassesOnTheFirsts) {
  EXPECT_EQ(WhatIsThrown([] { Throw("first"); }, [] { Throw("second"); }), "first");
}

}  // namespace
