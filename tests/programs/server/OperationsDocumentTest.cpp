#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>

#include "programs/server/Counters.h"
#include "programs/server/Metrics.h"
#include "programs/server/OptionTable.h"
#include "tavix/settings/server/SettingsManager.h"
#include "tests/programs/server/PrometheusText.h"

// The documents of the daemon leave nothing out.

namespace tavix::test {

namespace {

using testing::HasSubstr;

std::string ReadDocument(const std::string& name) {
  std::ifstream file(TAVIX_SOURCE_DIR "/docs/" + name, std::ios::binary);
  return std::string((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
}

}  // namespace

TEST(OperationsDocument, DescribesEveryMetric) {
  const std::string document = ReadDocument("operations.md");
  const std::string prefix = "tavix_settings_";
  const settings::server::SettingsManager store;
  const PrometheusText metrics(daemon::ComposeMetrics(daemon::Counters(), store));
  EXPECT_FALSE(metrics.GetTypes().empty());
  for (const auto& [name, type] : metrics.GetTypes()) {
    EXPECT_EQ(name.compare(0, prefix.size(), prefix), 0) << name;
    EXPECT_EQ(name.size() > 6 && name.compare(name.size() - 6, 6, "_total") == 0, type == "counter") << name;
    EXPECT_THAT(document, HasSubstr("`" + name.substr(prefix.size()) + "`"));
  }
}

TEST(OperationsDocument, NamesEveryReason) {
  const std::string document = ReadDocument("operations.md");
  for (size_t i = 0; i < static_cast<size_t>(daemon::Refusal::kCount); ++i)
    EXPECT_THAT(document, HasSubstr("`" + std::string(NameOf(static_cast<daemon::Refusal>(i))) + "`"));
  for (size_t i = 0; i < static_cast<size_t>(daemon::CutReason::kCount); ++i)
    EXPECT_THAT(document, HasSubstr("`" + std::string(NameOf(static_cast<daemon::CutReason>(i))) + "`"));
}

TEST(OperationsDocument, ManualPageNamesEveryOption) {
  const std::string page = ReadDocument("man/tavix-settings-server.8.scd");
  for (const daemon::OptionEntry& option : daemon::GetOptionTable())
    EXPECT_THAT(page, HasSubstr("*--" + std::string(option.name) + "*"));
}

}  // namespace tavix::test
