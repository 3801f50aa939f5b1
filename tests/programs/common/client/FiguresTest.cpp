#include "programs/common/client/Figures.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "programs/common/client/Json.h"

namespace tavix::test {

TEST(Figures, BecomeNumbersAndTruthValuesOfJson) {
  const nlohmann::json object = programs::FiguresToJson({{"clients", "12"}, {"kept", "true"}, {"version", "1.2"}});
  EXPECT_EQ(programs::Compact(object), R"({"clients":12,"kept":true,"version":"1.2"})");
}

TEST(Figures, StandInAReportUnderTheirOwnNamesToo) {
  const nlohmann::json report = programs::ReportServer("host:1", 0.5, {{"groups.effective", "7"}});
  EXPECT_EQ(report["server"], "host:1");
  EXPECT_EQ(report["groups"], 7);
  EXPECT_EQ(report["info"]["groups.effective"], 7);
  EXPECT_FALSE(report.contains("settings"));
}

}  // namespace tavix::test
