#include "tests/support/RandomDocument.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace tavix::test {

namespace {

const std::string kSpecial[] = {".",    "\n",   "\r\n", "\r",  "\t",  " ", "=",  "[", "]",
                                "#",    ";",    "\\",   "\\n", "\\x", "s", "\"", "'", "\xEF\xBB\xBF",
                                "*",    "/",    "~",    "%s",  "(",   ")", "=>", ",", std::string(1, '\0'),
                                "\x7f", "\xff", "0",    "a"};

}  // namespace

core::IniFile::GroupMap RandomDocuments::Next() {
  core::IniFile::GroupMap groups;
  for (size_t group = Below(5); group > 0; --group) {
    core::IniFile::KeyMap& keys = groups[NextText(6)];
    for (size_t key = Below(5); key > 0; --key) {
      std::string name = NextText(6);
      keys[std::move(name)] = NextText(Below(50) == 0 ? 5000 : 12);
    }
  }
  return groups;
}

std::string RandomDocuments::NextText(size_t most) {
  std::string text;
  for (size_t parts = Below(most + 1); parts > 0; --parts) text += NextByte();
  text.resize(std::min(text.size(), most));
  return text;
}

std::string RandomDocuments::NextByte() {
  if (Below(2) == 0) return kSpecial[Below(std::size(kSpecial))];
  return std::string(1, static_cast<char>(Below(256)));
}

}  // namespace tavix::test
