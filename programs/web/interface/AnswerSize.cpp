#include "programs/web/interface/AnswerSize.h"

#include "programs/web/http/Refusal.h"

namespace tavix::web {

namespace {

constexpr size_t kFreeBytes = 64 * size_t{1024};
constexpr size_t kShareBytes = 512 * size_t{1024};

}  // namespace

void AnswerSize::Add(size_t bytes) {
  _bytes += bytes;
  if (_bytes > _bounds.maxBytes)
    Refuse(507, {"the answer would have more than ", std::to_string(_bounds.maxBytes),
                 " bytes: ask for less at once, or give the program --max-answer"});
  while (_bytes > kFreeBytes && _bytes > _granted) {
    MemoryBudget::Share share = _bounds.budget.Take(kShareBytes);
    if (!share) RefuseForNow(503, "too many large answers are on their way", 1);
    _shares.push_back(std::move(share));
    _granted += kShareBytes;
  }
}

}  // namespace tavix::web
