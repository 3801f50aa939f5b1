#pragma once

#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace tavix::test {

// A block of a Markdown document between two lines of ```.
struct FencedBlock {
  std::string kind;   // what stands behind the opening ```
  std::string place;  // DOCUMENT:LINE of its first line
  std::vector<std::string> lines;

  std::string GetText() const {
    std::string text;
    for (const std::string& line : lines) text += line + "\n";
    return text;
  }
};

// document: relative to the project's root.
inline std::vector<FencedBlock> ReadFencedBlocks(const std::string& document) {
  std::ifstream file(std::string(TAVIX_SOURCE_DIR "/") + document);
  if (!file) throw std::runtime_error("No document " + document);
  std::vector<FencedBlock> blocks;
  bool inside = false;
  size_t number = 0;
  for (std::string line; std::getline(file, line);) {
    ++number;
    if (line.rfind("```", 0) != 0) {
      if (inside) blocks.back().lines.push_back(line);
      continue;
    }
    inside = !inside;
    if (inside) blocks.push_back({line.substr(3), document + ":" + std::to_string(number + 1), {}});
  }
  return blocks;
}

}  // namespace tavix::test
