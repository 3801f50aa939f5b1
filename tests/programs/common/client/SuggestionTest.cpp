#include "programs/common/client/Suggestion.h"

#include <gtest/gtest.h>

namespace tavix::test {

TEST(Suggestion, FindsWhatWasMeant) {
  const std::vector<std::string> names{"get", "list", "show", "search", "set", "delete"};
  EXPECT_EQ(programs::FindSimilar("shwo", names), "show");
  EXPECT_EQ(programs::FindSimilar("delet", names), "delete");
  EXPECT_EQ(programs::FindSimilar("LIST", names), "list");
  EXPECT_EQ(programs::FindSimilar("quux", names), "");
}

TEST(Suggestion, KeepsTheBestOfThoseThatCome) {
  programs::SimilarWord similar("Network/Eth0");
  for (const char* name : {"Network/E", "Network/Eht1", "Network/eth0", "Network/Eth1", "Network/Eth0/Statistics"})
    similar.Look(name);
  EXPECT_EQ(similar.Get(), "Network/eth0");
}

}  // namespace tavix::test
