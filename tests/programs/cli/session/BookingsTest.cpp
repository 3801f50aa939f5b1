#include "programs/cli/session/Bookings.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "programs/common/client/Failure.h"

namespace tavix::test {

using core::IniFile;
using settings::ResourceFigures;
using testing::Optional;

TEST(Bookings, AmountIsAWholeNumberOrAShare) {
  EXPECT_EQ(programs::cli::ParseAmount("20").number, 20);
  EXPECT_FALSE(programs::cli::ParseAmount("-3").isShare);
  EXPECT_DOUBLE_EQ(programs::cli::ParseAmount("12.5%").percent, 12.5);
  for (const char* text : {"", "x", "5 %", "%", "1.5", "nan%", "20%%"}) {
    EXPECT_THROW(programs::cli::ParseAmount(text), programs::Failure) << text;
  }
}

TEST(Bookings, WholePercentsOfAHundredAreThatNumber) {
  const IniFile none;
  const ResourceFigures figures(none);
  for (int percent = 0; percent <= 100; ++percent) {
    const std::string text = std::to_string(percent) + "%";
    EXPECT_THAT(programs::cli::FindBooking(figures, "A", "R", programs::cli::ParseAmount(text)), Optional(percent))
        << text;
  }
}

}  // namespace tavix::test
