#include "conformance/vectors/Inputs.h"

namespace tavix::conformance {

namespace {

using std::string_literals::operator""s;

// The standard's distributions differ between libraries, its generators do not.
size_t Below(std::mt19937& random, size_t end) {
  return random() % end;
}

std::string RandomBytes(std::mt19937& random) {
  static const std::string kSpecial = "\\[]=#;. \t\n\r\0\x7f\xff*/aZ0"s;
  std::string bytes;
  for (size_t left = Below(random, 7); left > 0; --left)
    bytes += Below(random, 3) == 0 ? static_cast<char>(Below(random, 256)) : kSpecial[Below(random, kSpecial.size())];
  return bytes;
}

}  // namespace

std::vector<std::string> TextInputs() {
  return {
      "",
      "\n",
      "[A]\n",
      "[A]",
      "[A]\nx=1\n",
      "[A]\nx=1",
      "[A]\r\nx=1\r\n",
      "\xef\xbb\xbf[A]\nx=1\n",
      "[A]\n\xef\xbb\xbfx=1\n",
      "# comment\n; comment\n[A]\n  # comment\nx=1 # value\n",
      "[A]\n \t x \t = \t 1 \t \n",
      "[A]\nx=1\nx=2\n",
      "[A]\nx=1\n[B]\ny=2\n[A]\nz=3\n",
      "[B]\nb=1\na=2\n[A]\n",
      "[]\n=\n",
      "[A]\n=value\nkey=\n",
      "[ A ]\nx=1\n",
      "[a]b]\nx=1\n",
      "[[a]]\nx=1\n",
      "[a]b[c]\nx=1\n",
      "[a\\x5db]\nx=1\n",
      "[a\\]]\nx=1\n",
      "[A/B/C]\nx=/a/b\n",
      "[A]\nx=a=b=c\n",
      "[A]\na\\=b=c\n",
      "[A]\na\\x3db=c\n",
      "[A]\na\\\\=b=c\n",
      "[A]\n\\x5bx]=y\n",
      "[A]\n\\x23x=y\n\\x3bz=w\n",
      "[A]\nx=\\s a \\s\n",
      "[A]\n\\sx\\s=1\n",
      "[A]\nx=two\\nlines\\r\\t\\\\\\x00\\x7f\\xff\n",
      "[A]\nx=\\xFF\\xfF\n",
      "[A]\nx=50\\% \\d \\x \\xg0 \\x1 \\\n",
      "[A]\nx=Cam\xc3\xa9ra d\xe2\x80\x99"
      "entr\xc3\xa9"
      "e\n",
      "[A]\nx=\xff\xfe\n",
      "[\xff]\n\xfe=1\n",
      "[base64:x]\nbase64:y=1\n",
      "[A]\nx=a\0b\n"s,
      "[A]\nx=\"quoted\" 'too' %d $y\n",
      "[A]\nx=.\n.=1\n",
      "[.]\n",
      "[A]\nx=a\rb\n",
      "[A]\nx=a\r\r\n",
      "[A]\nx=a\v\f\n",
      "[A]\n.\n",
      "[A]\nkey\n",
      "key=1\n",
      "\n\nkey=1\n",
      "[A\n",
      "[A] # comment\n",
      "[A]\n[x]=y\n",
      "[A]\nx=1\n[B] = [C]\n",
      "[A]\n]x=1\n",
      "]\n",
      "=\n",
  };
}

std::vector<std::string> PhpArrayInputs() {
  return {
      "a:0:{}",
      "a:1:{s:1:\"A\";a:0:{}}",
      "a:1:{s:1:\"A\";a:1:{s:1:\"x\";s:1:\"1\";}}",
      "a:1:{s:0:\"\";a:1:{s:0:\"\";s:0:\"\";}}",
      "a:2:{s:1:\"B\";a:0:{}s:1:\"A\";a:0:{}}",
      "a:1:{s:1:\"A\";a:2:{s:1:\"x\";s:1:\"1\";s:1:\"x\";s:1:\"2\";}}",
      "a:2:{s:1:\"A\";a:1:{s:1:\"x\";s:1:\"1\";}s:1:\"A\";a:1:{s:1:\"y\";s:1:\"2\";}}",
      " a:1:{ s:1:\"A\";\n a:1:{\ts:1:\"x\"; s:1:\"1\"; } }",
      "a:1:{s:1:\"A\";a:1:{s:1:\"x\";s:7:\"a\";\n.\n}\";}}",
      "a:1:{s:1:\"A\";a:1:{s:1:\"x\";s:2:\"\xc3\xa9\";}}",
      "a:1:{s:1:\"A\";a:1:{s:1:\"x\";s:2:\"\xff\xfe\";}}",
      "a:1:{s:1:\"A\";a:1:{s:1:\"x\";s:3:\"a\0b\";}}"s,
      "a:01:{s:+1:\"A\";a:0:{}}",
      "a:0:{}a:1:{",
      "",
      "a",
      "a:1:{s:1:\"A\";a:one:{}}",
      "a:1:{s:9:\"A\";a:0:{}}",
      "a:1:{s:1:\"AB\";a:0:{}}",
      "a:1:{i:1;a:0:{}}",
      "a:2:{s:1:\"A\";a:0:{}}",
      "s:1:\"A\";",
  };
}

std::vector<std::pair<std::string, std::string>> PatternInputs() {
  return {
      {"*", ""},
      {"*", "A"},
      {"*", "A/B"},
      {"", ""},
      {"", "A"},
      {"A", "A"},
      {"A", "a"},
      {"A", "A/B"},
      {"A", "AA"},
      {"A*", "A"},
      {"A*", "AB"},
      {"A*", "BA"},
      {"*A", "A"},
      {"*A", "BA"},
      {"*A", "AB"},
      {"A/*", "A"},
      {"A/*", "A/"},
      {"A/*", "A/B"},
      {"A/*", "A/B/C"},
      {"*/C", "A/B/C"},
      {"A*C", "AC"},
      {"A*C", "ABC"},
      {"A*C", "ABCD"},
      {"A**C", "AC"},
      {"**", ""},
      {"*a*b*", "xaybz"},
      {"*a*b*", "xbya"},
      {"a*a", "a"},
      {"a*a", "aa"},
      {"*ab", "aab"},
      {"*aab*", "aaab"},
      {"?", "A"},
      {"[A]", "A"},
      {"A.B", "AxB"},
      {" A", "A"},
      {"A ", "A "},
      {"\\*", "\\x"},
      {"*\r", "A\r"},
      {"\xff*", "\xff"},
      {"*\xc3*", "\xc3\xa9"},
      {"*a*a*a*b", "aaaaaaaaaaaaaaaaaaaaaaaaaaaa"},
  };
}

core::IniFile RandomDocument(std::mt19937& random) {
  core::IniFile document;
  for (size_t groups = Below(random, 4); groups > 0; --groups) {
    core::IniFile::KeyMap& keys = document[RandomBytes(random)];
    for (size_t left = Below(random, 4); left > 0; --left) {
      const std::string key = RandomBytes(random);
      keys[key] = RandomBytes(random);
    }
  }
  return document;
}

std::string RandomText(std::mt19937& random) {
  static const std::vector<std::string> kPieces = {"[", "]", "=", "#",  ";",  "\\",    "\n",  "\n",    " ",
                                                   "a", "b", ".", "\r", "\t", "[A]\n", "x=1", "\\x3d", "\\s"};
  std::string text = Below(random, 2) == 0 ? "" : "[A]\n";
  for (size_t left = Below(random, 12); left > 0; --left) text += kPieces[Below(random, kPieces.size())];
  return text;
}

std::string RandomLetters(std::mt19937& random, const std::string& letters) {
  std::string text;
  for (size_t left = Below(random, 9); left > 0; --left) text += letters[Below(random, letters.size())];
  return text;
}

}  // namespace tavix::conformance
