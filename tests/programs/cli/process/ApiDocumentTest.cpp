#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <string>
#include <vector>

// docs/api.md leaves no error out.

namespace tavix::test {

namespace {

std::string ReadFile(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

// The texts of all exceptions that the library throws, as they stand in the sources.
std::vector<std::string> FindErrorTexts() {
  std::vector<std::string> texts;
  const std::regex thrown(R"re(Exception\(\s*"((?:[^"\\]|\\.)*)")re");
  for (const auto& entry : std::filesystem::recursive_directory_iterator(TAVIX_SOURCE_DIR "/tavix")) {
    if (!entry.is_regular_file()) continue;
    const std::string source = ReadFile(entry.path());
    for (std::sregex_iterator at(source.begin(), source.end(), thrown), end; at != end; ++at)
      texts.push_back(std::regex_replace((*at)[1].str(), std::regex(R"(\\(.))"), "$1"));
  }
  return texts;
}

// What of a text does not depend on the occasion.
std::vector<std::string> FixedPartsOf(const std::string& text) {
  const std::regex placeholder("%(ll|z|l)?[a-z]");
  const std::sregex_token_iterator begin(text.begin(), text.end(), placeholder, -1);
  std::vector<std::string> parts(begin, std::sregex_token_iterator());
  parts.erase(std::remove_if(parts.begin(), parts.end(), [](const std::string& part) { return part.size() < 3; }),
              parts.end());
  return parts;
}

}  // namespace

TEST(ApiDocument, ListsEveryErrorText) {
  const std::string document = ReadFile(TAVIX_SOURCE_DIR "/docs/api.md");
  const std::vector<std::string> texts = FindErrorTexts();
  EXPECT_GT(texts.size(), 40U);
  for (const std::string& text : texts) {
    for (const std::string& part : FixedPartsOf(text))
      EXPECT_THAT(document, testing::HasSubstr(part)) << "of \"" << text << "\"";
  }
}

}  // namespace tavix::test
