// What the command books, the library books, and what one refuses the other does.

#include "tavix/settings/ResourceManager.h"

#include <cstdlib>

#include "tavix/settings/TavixSettingsClient.h"
#include "tests/programs/cli/process/CommandTest.h"
#include "tests/support/Environment.h"

namespace tavix::test {

namespace {

using settings::ResourceManager;
using Usage = ResourceManager::ResourceUsage;

// An amount as the command takes it, and as the library does.
struct Amount {
  std::string word;
  bool isShare = false;
  int number = 0;
  double fraction = 0.0;
};

const char kResources[] =
    "[Resources/R]\nTotalAvailable=100\n[Resources/R/Consumers/other]\nCurrentlyUsed=60\n"
    "[Resources/R/Consumers/old/name]\nCurrentlyUsed=9\n";

}  // namespace

class BookingCommands : public CommandTest {
 protected:
  BookingCommands() : _endpoint("TAVIX_SETTINGS_SERVER", _address.c_str()) {}

  // What stands in the store when only these bookings were made.
  void Reset() const {
    ProtocolClient client(_daemon.GetPort());
    client.Send(std::string("overwrite\nResources/*\n.\n") + kResources + ".\n");
    client.AwaitHandled();
  }

  bool ReserveByCommand(const std::string& consumer, const std::string& resource, const Amount& amount) const {
    return Run({"resource", "reserve", resource, "-c", consumer, "--", amount.word}).status == 0;
  }

  static bool ReserveByLibrary(const std::string& consumer, const std::string& resource, const Amount& amount) {
    settings::TavixSettingsClient client(settings::TavixSettingsClient::SingleThreaded);
    return ResourceManager(&client).ReserveForConsumer(
        consumer, {Usage{resource, amount.isShare, amount.number, amount.fraction}});
  }

  const ScopedEnvironment _endpoint;
};

TEST_F(BookingCommands, ComeToTheSameAsTheLibrarys) {
  const Amount amounts[] = {
      {"0"}, {"40", false, 40}, {"41", false, 41}, {"-1", false, -1}, {"25%", true, 0, 0.25}, {"0%", true, 0, 0.0}};
  for (const char* consumer : {"me", "a/b", "old/name", "Secure", "NotTrusted/x", "other"}) {
    for (const Amount& amount : amounts) {
      Reset();
      const bool isReserved = ReserveByCommand(consumer, "R", amount);
      const std::string figures = Ask("Resources/*");
      Reset();
      EXPECT_EQ(ReserveByLibrary(consumer, "R", amount), isReserved) << consumer << " " << amount.word;
      EXPECT_EQ(Ask("Resources/*"), figures) << consumer << " " << amount.word;
    }
  }
}

TEST_F(BookingCommands, OfARestrictedNameAreRefused) {
  Reset();
  ExpectRun({"resource", "reserve", "R", "5", "-c", "Secure"}, 5, "",
            "tavix-settings: refused: 'Resources/R/Consumers/Secure' is a restricted group\n"
            "hint: groups with 'Secure' or 'Trusted' in their names are set by the server's restricted files only\n");
  EXPECT_FALSE(ReserveByLibrary("me", "TrustedR", {"1", false, 1}));
  EXPECT_THAT(Ask("Resources/*"), testing::Not(testing::HasSubstr("Trusted")));
}

TEST_F(BookingCommands, BelowASlashCanBeReleased) {
  Reset();
  EXPECT_TRUE(ReserveByLibrary("old/name", "R", {"0"}));
  EXPECT_THAT(Ask("Resources/*"), testing::HasSubstr("[Resources/R/Consumers/old/name]\nCurrentlyUsed=0\n"));
}

// A first booking takes room, and no figure changes while it is refused.
TEST(FullStore, EndsABookingOfTheCommandAndSaysWhy) {
  const TemporaryDirectory directory;
  directory.Write("defaults.ini", kResources);
  const Daemon daemon(directory, {"--defaults", "defaults.ini", "--max-store", "1"});
  const Outcome outcome = RunToEnd(directory.GetPath(),
                                   {TAVIX_CLI_PROGRAM, "-t", "80", "-s", daemon.AwaitAddresses().front(), "resource",
                                    "reserve", "R", "5", "-c", "me"},
                                   {}, {{"LC_ALL", "C"}});
  EXPECT_EQ(outcome.status, 7);
  EXPECT_THAT(outcome.errors,
              testing::StartsWith("tavix-settings: not applied: the server refused 50 times to book 'R' "
                                  "for 'me', and no figure had changed\n"));
}

}  // namespace tavix::test
