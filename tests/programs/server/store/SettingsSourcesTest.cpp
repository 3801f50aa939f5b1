#include "programs/server/store/SettingsSources.h"

#include <gtest/gtest.h>

#include <string>

#include "programs/server/metrics/Counters.h"
#include "programs/server/options/Options.h"
#include "tavix/core/IniFile.h"
#include "tavix/settings/server/SettingsCombiner.h"
#include "tests/support/DocumentText.h"
#include "tests/support/TemporaryDirectory.h"

namespace tavix::test {

using core::IniFile;
using daemon::Counters;
using daemon::Options;
using daemon::SettingsSources;
using settings::server::SettingsCombiner;

namespace {

class DefaultsOnDisk : public testing::Test {
 protected:
  DefaultsOnDisk() { Write("[A]\nx=1\ny=1\n[B]\nx=1\n"); }

  void Write(const std::string& text) { _directory.Write("defaults.ini", text); }

  // Loads them all, or the group A alone, which a restore does.
  std::string Load(bool isPart) {
    IniFile target;
    SettingsCombiner combiner(target);
    if (isPart) combiner.SetWanted([](std::string_view name) { return name == "A"; });
    _sources.LoadDefaultSettings(combiner);
    return TextOf(target);
  }

  std::string LoadAll() { return Load(false); }
  std::string LoadPart() { return Load(true); }

  TemporaryDirectory _directory;
  Counters _counters;

 private:
  Options MakeOptions() const {
    Options options;
    options.defaults.paths = {_directory.Path("defaults.ini")};
    return options;
  }

  SettingsSources _sources{MakeOptions(), _counters};
};

}  // namespace

TEST_F(DefaultsOnDisk, ArePartlyLoadedWhileTheyAreWhatTheyWere) {
  LoadAll();
  EXPECT_EQ(LoadPart(), "[A]\nx=1\ny=1\n");
  EXPECT_EQ(_counters.defaultGroups.Get(), 2u);
  EXPECT_EQ(_counters.defaultKeys.Get(), 3u);
}

TEST_F(DefaultsOnDisk, AreCountedAnewWhenAPartOfThemIsLoadedAfterAChange) {
  LoadAll();
  Write("[A]\nx=1\n[B]\nx=1\n[C]\nx=1\ny=1\nz=1\n");
  LoadPart();
  EXPECT_EQ(_counters.defaultGroups.Get(), 3u);
  EXPECT_EQ(_counters.defaultKeys.Get(), 5u);
  EXPECT_EQ(LoadPart(), "[A]\nx=1\n");
}

}  // namespace tavix::test
