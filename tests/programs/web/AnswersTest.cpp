#include <gtest/gtest.h>

#include "programs/web/http/Refusal.h"
#include "programs/web/interface/AnswerSize.h"
#include "tests/programs/web/Web.h"

namespace tavix::test {

using nlohmann::json;
using web::AnswerSize;
using web::MemoryBudget;

namespace {

constexpr size_t kMegabyte = 1024 * size_t{1024};

int StatusOf(AnswerSize& size, size_t bytes) {
  try {
    size.Add(bytes);
    return 200;
  } catch (const web::Refusal& refusal) {
    return refusal.GetStatus();
  }
}

// Groups with a long value each.
void AddLongValues(const Web& web, int count, size_t length) {
  std::string change = "merge\n";
  for (int i = 0; i < count; ++i)
    change += "[long" + std::to_string(100 + i) + "]\nk=" + std::string(length, 'x') + "\n";
  CarryOut(web.daemon.GetPort(), change + ".\n");
}

}  // namespace

TEST(WebAnswers, TakeNoMoreThanIsAllowed) {
  MemoryBudget budget(4 * kMegabyte);
  const web::AnswerBounds bounds{2 * kMegabyte, budget};
  AnswerSize size(bounds);
  EXPECT_EQ(StatusOf(size, 2 * kMegabyte), 200);
  EXPECT_EQ(StatusOf(size, 1), 507);
}

TEST(WebAnswers, TakeNoMoreThanIsLeftTogether) {
  MemoryBudget budget(4 * kMegabyte);
  const web::AnswerBounds bounds{3 * kMegabyte, budget};
  AnswerSize first(bounds);
  AnswerSize second(bounds);
  AnswerSize small(bounds);
  EXPECT_EQ(StatusOf(first, 3 * kMegabyte), 200);
  EXPECT_EQ(StatusOf(second, 2 * kMegabyte), 503);
  EXPECT_EQ(StatusOf(small, 10'000), 200);
  second.TakeShares();
  first.TakeShares();
  AnswerSize third(bounds);
  EXPECT_EQ(StatusOf(third, 3 * kMegabyte), 200);
}

TEST(WebAnswers, ThatWouldBeTooLargeAreRefused) {
  const Web web({"--max-answer", "1048576"});
  AddLongValues(web, 1, 2 * kMegabyte);
  EXPECT_EQ(web.Ask("GET", "/group?name=long100").status, 507);
  EXPECT_EQ(web.Ask("GET", "/export").status, 507);
  EXPECT_EQ(web.Ask("GET", "/export?format=json").status, 507);
  EXPECT_EQ(web.Ask("GET", "/diff").status, 507);
  EXPECT_EQ(web.Ask("POST", "/reset", R"({"groups": ["long*"]})").status, 507);
  EXPECT_EQ(web.Get("/groups?pattern=long*")["groups"].size(), 1U);
  EXPECT_EQ(web.Ask("GET", "/export?pattern=Network/*").status, 200);
}

TEST(WebAnswers, ThatAreLargeArriveWhole) {
  const Web web;
  AddLongValues(web, 40, 100'000);
  const std::string text = web.Ask("GET", "/export?pattern=long*").body;
  EXPECT_EQ(CountOf("\nk=" + std::string(100'000, 'x') + "\n", text), 40U);
  EXPECT_EQ(json::parse(web.Ask("GET", "/export?pattern=long*&format=json").body).size(), 40U);
}

TEST(WebAnswers, OfSearchesComeInPartsThatAreNotTooLong) {
  const Web web({"--max-answer", "2000000"});
  AddLongValues(web, 40, 100'000);
  size_t hits = 0;
  size_t parts = 0;
  std::string after;
  for (json part; part.is_null() || !part["next"].is_null(); ++parts) {
    part = web.Get("/search?q=xxx&in=values" + after);
    hits += part["hits"].size();
    if (!part["next"].is_null())
      after = "&after=" + part["next"]["after"].get<std::string>() +
              "&afterKey=" + part["next"]["afterKey"].get<std::string>();
  }
  EXPECT_EQ(hits, 40U);
  EXPECT_GT(parts, 3U);
}

}  // namespace tavix::test
