#pragma once

#include <string>
#include <vector>

namespace tavix::programs {

// The candidate that somebody who wrote "word" is likely to have meant: few typing errors away from it, exchanged
// neighbours and other case counted as one each. Empty when there is none.
std::string FindSimilar(const std::string& word, const std::vector<std::string>& candidates);

// "; did you mean 'x'?", or nothing.
std::string DidYouMean(const std::string& word, const std::vector<std::string>& candidates);

}  // namespace tavix::programs
