#include "tavix/settings/Setting.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/DocumentText.h"

namespace tavix::settings {

namespace {

// What the variable is set to by a document with that value, from another value before.
template <class T>
T Read(const std::string& value, T before) {
  T variable = before;
  core::IniFile document;
  document.SetValue("A", "x", value);
  Setting<T>("A", "x", &variable).ReadSetting(document);
  return variable;
}

}  // namespace

TEST(Setting, AnIntIsADecimalNumberElseZero) {
  const std::pair<std::string, int> cases[] = {
      {"42", 42}, {"-7", -7}, {"+7", 7}, {" 7 ", 7}, {"2147483647", 2147483647}, {"", 0}, {"7x", 0}, {"2147483648", 0}};
  for (const auto& [text, value] : cases) EXPECT_EQ(Read(text, 99), value) << text;
}

TEST(Setting, ABoolIsOneOfEightWordsInAnyCaseElseFalse) {
  for (const char* text : {"true", "yes", "on", "1", "TRUE", "Yes"}) EXPECT_TRUE(Read(text, false)) << text;
  for (const char* text : {"false", "no", "off", "0", "", "2", "truth"}) EXPECT_FALSE(Read(text, true)) << text;
}

TEST(Setting, AStringIsTheValueAsItStands) {
  for (const char* text : {"", " ", "a b", "line\nbreak"}) EXPECT_EQ(Read<std::string>(text, "before"), text);
}

TEST(Setting, AMissingKeyOrGroupIsTheTypesDefault) {
  for (const char* text : {"", "[A]\n", "[A]\ny=1\n", "[B]\nx=1\n"}) {
    const core::IniFile document = test::DocumentOf(text);
    int number = 99;
    bool flag = true;
    std::string name = "before";
    Setting<int>("A", "x", &number).ReadSetting(document);
    Setting<bool>("A", "x", &flag).ReadSetting(document);
    Setting<std::string>("A", "x", &name).ReadSetting(document);
    EXPECT_EQ(number, 0);
    EXPECT_FALSE(flag);
    EXPECT_EQ(name, "");
  }
}

TEST(Setting, IsReadThroughItsBase) {
  int number = 99;
  const std::unique_ptr<SettingBase> setting = std::make_unique<Setting<int>>("A", "x", &number);
  setting->ReadSetting(test::DocumentOf("[A]\nx=1\n"));
  EXPECT_EQ(number, 1);
}

}  // namespace tavix::settings
