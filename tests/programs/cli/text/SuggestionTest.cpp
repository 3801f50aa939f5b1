#include "programs/cli/text/Suggestion.h"

#include <gtest/gtest.h>

namespace tavix::test {

TEST(Suggestion, FindsWhatWasMeant) {
  const std::vector<std::string> names{"get", "list", "show", "search", "set", "delete"};
  EXPECT_EQ(cli::FindSimilar("shwo", names), "show");
  EXPECT_EQ(cli::FindSimilar("delet", names), "delete");
  EXPECT_EQ(cli::FindSimilar("LIST", names), "list");
  EXPECT_EQ(cli::FindSimilar("quux", names), "");
}

}  // namespace tavix::test
