#include "programs/server/history/RequestWords.h"

#include <cerrno>
#include <cstdlib>
#include <utility>

#include "tavix/settings/server/Words.h"

namespace tavix::daemon {

using Answer = settings::server::IExtraCommands::Answer;

std::string TakeArgument(std::string_view& args) {
  return std::string(settings::server::TakeWord(args));
}

std::string TakeRest(std::string_view args) {
  return std::string(settings::server::TrimBlanks(args));
}

std::optional<uint64_t> ParseDecimal(const std::string& text) {
  constexpr size_t kMaxDigits = 20;
  const bool isDecimal = !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
  if (!isDecimal || text.size() > kMaxDigits) return std::nullopt;
  errno = 0;
  const unsigned long long number = std::strtoull(text.c_str(), nullptr, 10);
  if (errno != 0) return std::nullopt;
  return number;
}

Answer Refuse(const std::string& reason) {
  Answer answer;
  answer.kind = Answer::Kind::kRefused;
  answer.reason = reason;
  return answer;
}

Answer Show(core::IniFile data) {
  Answer answer;
  answer.kind = Answer::Kind::kData;
  answer.data = std::move(data);
  return answer;
}

}  // namespace tavix::daemon
