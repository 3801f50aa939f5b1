#include "programs/cli/session/Bookings.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "programs/cli/text/Failure.h"

namespace tavix::test {

using core::IniFile;
using settings::ResourceFigures;
using testing::Optional;

TEST(Bookings, AmountIsAWholeNumberOrAShare) {
  EXPECT_EQ(cli::ParseAmount("20").number, 20);
  EXPECT_FALSE(cli::ParseAmount("-3").isShare);
  EXPECT_DOUBLE_EQ(cli::ParseAmount("12.5%").percent, 12.5);
  for (const char* text : {"", "x", "5 %", "%", "1.5", "nan%", "20%%"}) {
    EXPECT_THROW(cli::ParseAmount(text), cli::Failure) << text;
  }
}

TEST(Bookings, WholePercentsOfAHundredAreThatNumber) {
  const IniFile none;
  const ResourceFigures figures(none);
  for (int percent = 0; percent <= 100; ++percent) {
    const std::string text = std::to_string(percent) + "%";
    EXPECT_THAT(cli::FindBooking(figures, "A", "R", cli::ParseAmount(text)), Optional(percent)) << text;
  }
}

}  // namespace tavix::test
