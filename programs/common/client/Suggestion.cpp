#include "programs/common/client/Suggestion.h"

#include <algorithm>
#include <cctype>

#include "programs/common/client/Spelling.h"

namespace tavix::programs {

namespace {

bool AreSameLetter(char a, char b) {
  return std::tolower(static_cast<unsigned char>(a)) == std::tolower(static_cast<unsigned char>(b));
}

// The optimal string alignment distance, by three rows of its table.
size_t Distance(const std::string& a, const std::string& b) {
  std::vector<size_t> beforeLast, last(b.size() + 1), row(b.size() + 1);
  for (size_t j = 0; j <= b.size(); ++j) row[j] = j;
  for (size_t i = 1; i <= a.size(); ++i) {
    beforeLast = last;
    last = row;
    row[0] = i;
    for (size_t j = 1; j <= b.size(); ++j) {
      row[j] = std::min({last[j] + 1, row[j - 1] + 1, last[j - 1] + (AreSameLetter(a[i - 1], b[j - 1]) ? 0 : 1)});
      if (i > 1 && j > 1 && AreSameLetter(a[i - 1], b[j - 2]) && AreSameLetter(a[i - 2], b[j - 1]))
        row[j] = std::min(row[j], beforeLast[j - 2] + 1);
    }
  }
  return row[b.size()];
}

}  // namespace

std::string FindSimilar(const std::string& word, const std::vector<std::string>& candidates) {
  std::string best;
  size_t bestDistance = std::max<size_t>(1, word.size() / 3) + 1;
  for (const std::string& candidate : candidates) {
    const size_t distance = Distance(word, candidate);
    if (distance >= bestDistance) continue;
    bestDistance = distance;
    best = candidate;
  }
  return best;
}

std::string DidYouMean(const std::string& word, const std::vector<std::string>& candidates) {
  const std::string similar = FindSimilar(word, candidates);
  return similar.empty() ? similar : "; did you mean '" + SpellName(similar) + "'?";
}

}  // namespace tavix::programs
