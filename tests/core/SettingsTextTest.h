#pragma once

#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "tavix/core/IniFile.h"

namespace tavix::test {

// What both ways of reading make of a text; they must agree.
inline core::IniFile::GroupMap Read(const std::string& text) {
  core::IniFile fromString, fromStream;
  fromString.LoadFromString(text);
  std::istringstream stream(text);
  fromStream.LoadFromStream(stream);
  EXPECT_EQ(fromString.GetGroups(), fromStream.GetGroups());
  return fromString.GetGroups();
}

inline std::string Write(const core::IniFile::GroupMap& groups) {
  std::ostringstream text;
  core::IniFile(groups).SaveToStream(text);
  return text.str();
}

}  // namespace tavix::test
