#include "programs/cli/session/Figures.h"

#include <gtest/gtest.h>

#include <random>

#include "programs/cli/text/Failure.h"
#include "tavix/settings/ResourceManager.h"
#include "tavix/settings/TavixSettingsClient.h"
#include "tests/support/Environment.h"

namespace tavix::test {

namespace {

using cli::Figures;
using core::IniFile;
using settings::ResourceManager;
using settings::TavixSettingsClient;

const std::vector<std::string> kFigures{"0",  "1",          "7",           "10",   "33", "100",
                                        "-5", "2147483647", "-2147483648", "none", ""};
const std::vector<std::string> kAmounts{"0",  "1",   "10",    "100",   "-1",   "2147483647",
                                        "0%", "10%", "12.5%", "33.3%", "100%", "101%"};

class RandomFigures {
 public:
  IniFile Next() {
    IniFile settings;
    if (Once()) settings.SetValue("Resources/R", "TotalAvailable", Pick(kFigures));
    for (const char* consumer : {"A", "B", "C", "A/Notes"}) {
      const std::string group = std::string("Resources/R/Consumers/") + consumer;
      if (Once()) settings.SetValue(group, "CurrentlyUsed", Pick(kFigures));
      if (Once()) settings.SetValue(group, "MaxAllowed", Pick(kFigures));
    }
    if (_random() % 4 == 0)
      settings.SetValue("Resources/R/AllowedConsumers", "1", _random() % 2 == 0 ? "A" : "A/Notes");
    if (_random() % 8 == 0) settings["Resources/R/AllowedConsumers"];
    return settings;
  }

  std::string Pick(const std::vector<std::string>& texts) { return texts[_random() % texts.size()]; }

 private:
  bool Once() { return _random() % 2 == 0; }

  std::mt19937 _random{11};
};

ResourceManager::ResourceUsage UsageOf(const Figures::Amount& amount) {
  ResourceManager::ResourceUsage usage;
  usage.resource = "R";
  usage.isPercent = amount.isShare;
  usage.amount = amount.number;
  usage.fraction = amount.percent / 100;
  return usage;
}

}  // namespace

TEST(Figures, BookAsTheLibraryDoes) {
  const ScopedEnvironment noLocalFile("TAVIX_SETTINGS_LOCALFILE", nullptr);
  RandomFigures random;
  size_t booked = 0;
  for (int i = 0; i < 3000; ++i) {
    const IniFile settings = random.Next();
    const std::string consumer = random.Pick({"A", "A/Notes", "D"});
    const Figures::Amount amount = Figures::ParseAmount(random.Pick(kAmounts));
    TavixSettingsClient client(TavixSettingsClient::Local, settings);
    ResourceManager manager(&client);
    const Figures figures(settings);
    EXPECT_EQ(figures.GetTotal("R"), manager.GetTotal("R"));
    EXPECT_EQ(figures.GetAvailable("R", consumer), manager.GetAvailable(consumer, "R"));
    const std::optional<int> booking = figures.FindBooking("R", consumer, amount);
    ASSERT_EQ(booking.has_value(), manager.ReserveForConsumer(consumer, {UsageOf(amount)})) << i;
    if (!booking) continue;
    EXPECT_EQ(*booking, manager.GetUsed(consumer, "R"));
    ++booked;
  }
  EXPECT_GT(booked, 500U);
  EXPECT_LT(booked, 2500U);
}

TEST(Figures, AmountIsAWholeNumberOrAShare) {
  EXPECT_EQ(Figures::ParseAmount("20").number, 20);
  EXPECT_FALSE(Figures::ParseAmount("-3").isShare);
  EXPECT_DOUBLE_EQ(Figures::ParseAmount("12.5%").percent, 12.5);
  for (const char* text : {"", "x", "5 %", "%", "1.5", "nan%", "20%%"}) {
    EXPECT_THROW(Figures::ParseAmount(text), cli::Failure) << text;
  }
}

TEST(Figures, WholePercentsOfAHundredAreThatNumber) {
  const Figures figures{IniFile()};
  for (int percent = 0; percent <= 100; ++percent) {
    const std::string text = std::to_string(percent) + "%";
    EXPECT_EQ(figures.FindBooking("R", "A", Figures::ParseAmount(text)), percent) << text;
  }
}

}  // namespace tavix::test
