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

}  // namespace tavix::test
