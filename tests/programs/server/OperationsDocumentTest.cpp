#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>

#include "programs/server/connections/CutText.h"
#include "programs/server/metrics/Counters.h"
#include "programs/server/metrics/Metrics.h"
#include "programs/server/metrics/ServerInfo.h"
#include "programs/server/options/OptionTable.h"
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

std::string ReadSources(const std::string& directory) {
  std::string sources;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(TAVIX_SOURCE_DIR "/" + directory)) {
    std::ifstream file(entry.path());
    if (entry.path().extension() == ".cpp") sources.append(std::istreambuf_iterator<char>(file), {});
  }
  return sources;
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

// Else the daemon is killed before it can say what is lost.
TEST(OperationsDocument, WhoeverStopsTheDaemonHasMorePatienceThanItNeeds) {
  const std::vector<std::pair<std::string, std::string>> limits{
      {"systemd/tavix-settings-server.service", "\nTimeoutStopSec=([0-9]+)\n"},
      {"init.d/tavix-settings-server", "STOP_SECONDS:=([0-9]+)\\}"}};
  for (const auto& [name, pattern] : limits) {
    const std::string text = ReadDocument("../packaging/" + name);
    std::smatch limit;
    ASSERT_TRUE(std::regex_search(text, limit, std::regex(pattern))) << name;
    EXPECT_GE(std::stoul(limit[1]), daemon::Options().stopSeconds + 5) << name;
  }
}

TEST(OperationsDocument, ItAndTheManualPageNameEveryOption) {
  const std::string document = ReadDocument("operations.md");
  const std::string page = ReadDocument("man/tavix-settings-server.8.scd");
  for (const daemon::OptionEntry& option : daemon::GetOptionTable()) {
    EXPECT_THAT(document, testing::ContainsRegex("[` ]--" + std::string(option.name) + "[` ]"));
    EXPECT_THAT(page, HasSubstr("*--" + std::string(option.name) + "*"));
  }
}

TEST(OperationsDocument, DescriptionOfTheProtocolSaysWhyEachConnectionIsCut) {
  const std::string document = ReadDocument("protocol.md");
  const size_t begin = document.find("### Why was I disconnected");
  const std::string section = document.substr(begin, document.find("\n## ", begin) - begin);
  for (size_t i = 0; i < static_cast<size_t>(daemon::CutReason::kCount); ++i) {
    const auto reason = static_cast<daemon::CutReason>(i);
    EXPECT_THAT(section, HasSubstr("`" + std::string(NameOf(reason)) + "`"));
    const std::string text = TextOf(reason);
    if (reason != daemon::CutReason::kTls) {
      EXPECT_THAT(section, HasSubstr(text.substr(0, text.find(','))));
    }
  }
}

// In one table.
TEST(OperationsDocument, HasEveryExitStatusOfBothPrograms) {
  const std::string document = ReadDocument("operations.md");
  const size_t begin = document.find("### Exit status");
  const std::string section = document.substr(begin, document.find("## Starting", begin) - begin);
  for (const char* header : {"../programs/server/ExitCode.h", "../programs/common/client/Failure.h"}) {
    const std::string text = ReadDocument(header);
    const std::regex status("kExit[A-Za-z]+ = ([0-9]+),");
    size_t count = 0;
    for (std::sregex_iterator found(text.begin(), text.end(), status), end; found != end; ++found, ++count)
      EXPECT_THAT(section, HasSubstr("| " + (*found)[1].str() + " |")) << header;
    EXPECT_GT(count, 5U) << header;
  }
}

TEST(OperationsDocument, ManualPageOfConceptsNamesEveryRequest) {
  const std::string page = ReadDocument("man/tavix-settings.7.scd");
  for (const char* request : {"get delimited", "merge", "nopersist", "test-and-merge", "overwrite", "restore",
                              "subscribe", "serialize", "phparray", "dump", "all", "info subscribed", "info server",
                              "quit", "data", "result", "ok", "failure", "async change"})
    EXPECT_THAT(page, HasSubstr("*" + std::string(request) + "*"));
}

// "cut.REASON" stands for all of them.
TEST(OperationsDocument, DescriptionOfTheProtocolHasEveryFigureOfTheServer) {
  const std::string document = ReadDocument("protocol.md");
  const size_t begin = document.find("### info server");
  const std::string section = document.substr(begin, document.find("### quit", begin) - begin);
  daemon::Counters counters;
  counters.lastSave.Set(1);
  counters.unsavedSince.Set(1);
  counters.failure.Set("no room");
  const settings::server::SettingsManager store;
  core::IniFile::KeyMap figures;
  daemon::ServerInfo(counters, store, {"/user.ini", "always"}).AddFigures(figures);
  for (const auto& [name, value] : figures) {
    const std::string shown = name.rfind("cut.", 0) == 0 ? "cut.REASON" : name;
    EXPECT_THAT(section, HasSubstr("`" + shown + "`"));
  }
}

// Each text of the table is one that the daemon or its library has: of what varies there stand dots or capitals.
TEST(OperationsDocument, EveryMessageOfTheTroubleshootingIsOneOfTheDaemon) {
  const std::string document = ReadDocument("operations.md");
  const std::string sources =
      ReadSources("programs/server") + ReadSources("programs/common") + ReadSources("tavix/settings/server");
  const size_t begin = document.find("| message |");
  const std::string table = document.substr(begin, document.find("\n\n", begin) - begin);
  const std::regex cell("\n\\| `([^|]*)` \\|");
  const std::regex fixed("[A-Za-z][a-z]+( [a-z]+,?){2,}");
  size_t parts = 0;
  for (std::sregex_iterator row(table.begin(), table.end(), cell), end; row != end; ++row) {
    const std::string text = (*row)[1];
    for (std::sregex_iterator part(text.begin(), text.end(), fixed); part != end; ++part, ++parts)
      EXPECT_THAT(sources, HasSubstr(part->str())) << text;
  }
  EXPECT_GT(parts, 15U);
}

}  // namespace tavix::test
