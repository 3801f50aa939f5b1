#include "tavix/settings/common/SettingGuess.h"

#include <gtest/gtest.h>

namespace tavix::settings::common {

namespace {

// "[group]key", and a dot behind it when the key stood behind one.
std::string Guess(const std::string& text) {
  const std::optional<GuessedSetting> setting = GuessSetting(text);
  return setting ? "[" + setting->group + "]" + setting->key + (setting->hasDot ? "." : "") : "none";
}

}  // namespace

TEST(SettingGuess, SplitsAtDotsAndSlashes) {
  EXPECT_EQ(Guess("Video.Main.fps"), "[Video/Main]fps.");
  EXPECT_EQ(Guess("Video/Main.fps"), "[Video/Main]fps.");
  EXPECT_EQ(Guess("Video/Main/fps"), "[Video/Main]fps");
  EXPECT_EQ(Guess("Logging/Recorder.log.level"), "[Logging/Recorder]log.level.");
  EXPECT_EQ(Guess("a.b/c.d"), "[a.b/c]d.");
}

TEST(SettingGuess, NeedsTwoNamesThatPeopleType) {
  for (const char* text :
       {"", "fps", ".", "/", "./a", "a.", ".a", "a/", "/a", "a/b.", "a b.c", "[a]b", "a.b=c", "a.*", "caf\xC3\xA9.x"})
    EXPECT_EQ(Guess(text), "none") << text;
}

}  // namespace tavix::settings::common
