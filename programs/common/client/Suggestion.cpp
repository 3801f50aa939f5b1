#include "programs/common/client/Suggestion.h"

#include <algorithm>
#include <cctype>
#include <utility>

#include "programs/common/client/Join.h"
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

SimilarWord::SimilarWord(std::string word)
    : _word(std::move(word)), _bestDistance(std::max<size_t>(1, _word.size() / 3) + 1) {}

// Lengths alone tell most of the others apart.
void SimilarWord::Look(const std::string& candidate) {
  const auto [shorter, longer] = std::minmax({_word.size(), candidate.size()});
  if (longer - shorter >= _bestDistance) return;
  const size_t distance = Distance(_word, candidate);
  if (distance >= _bestDistance) return;
  _bestDistance = distance;
  _best = candidate;
}

std::string FindSimilar(const std::string& word, const std::vector<std::string>& candidates) {
  SimilarWord similar(word);
  for (const std::string& candidate : candidates) similar.Look(candidate);
  return similar.Get();
}

std::string DidYouMean(const std::string& similar) {
  return similar.empty() ? similar : Join({"; did you mean '", SpellName(similar), "'?"});
}

std::string DidYouMean(const std::string& word, const std::vector<std::string>& candidates) {
  return DidYouMean(FindSimilar(word, candidates));
}

}  // namespace tavix::programs
