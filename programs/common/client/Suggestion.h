#pragma once

#include <string>
#include <vector>

namespace tavix::programs {

// Finds the candidate that somebody who wrote "word" is likely to have meant: few typing errors away from it, exchanged
// neighbours and other case counted as one each. Candidates may come one by one; no more than the best one is kept.
//
// Threads: one.
class SimilarWord {
 public:
  explicit SimilarWord(std::string word);

  void Look(const std::string& candidate);

  // Empty when there is none.
  const std::string& Get() const { return _best; }

 private:
  const std::string _word;
  std::string _best;
  size_t _bestDistance;
};

// The same for a list.
std::string FindSimilar(const std::string& word, const std::vector<std::string>& candidates);

// "; did you mean 'x'?", or nothing.
std::string DidYouMean(const std::string& similar);
std::string DidYouMean(const std::string& word, const std::vector<std::string>& candidates);

}  // namespace tavix::programs
