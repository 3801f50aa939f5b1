#include "programs/server/connections/CutText.h"

#include <algorithm>

#include "tavix/core/SettingsText.h"

namespace tavix::daemon {

namespace {

constexpr size_t kMaxShown = 60;

// Without what may be a value: a client that is out of step may have begun its request with a setting.
std::string FirstLineOf(std::string_view text) {
  const size_t end = std::min({text.find_first_of("\r\n=?\""), text.size(), kMaxShown + 1});
  const bool isCut = end < text.size() && end <= kMaxShown && text[end] != '\r' && text[end] != '\n';
  return core::PrintableText(std::string(text.substr(0, end)), kMaxShown) + (isCut ? "..." : "");
}

}  // namespace

const char* TextOf(CutReason reason) {
  switch (reason) {
    case CutReason::kTls:
      return "TLS is not our protocol, bytes";
    case CutReason::kHttp:
      return "HTTP is not our protocol, bytes";
    case CutReason::kMemory:
      return "out of memory, bytes kept";
    case CutReason::kHardBacklog:
      return "more unread than is kept";
    case CutReason::kHeldBacklog:
      return "more waits for the disk than is kept";
    case CutReason::kAllBacklog:
      return "too much unread by all together, bytes of this one";
    case CutReason::kBacklog:
      return "too much unread for too long, bytes";
    case CutReason::kRequestTime:
      return "unfinished request, bytes";
    case CutReason::kLine:
      return "line too long, bytes";
    case CutReason::kRequest:
      return "request too long, bytes";
    case CutReason::kAllRequests:
      return "too much unfinished of all together, bytes of this one";
    case CutReason::kError:
    case CutReason::kCount:
      break;
  }
  return "";
}

std::string DescribeSent(CutReason reason, std::string_view sent, const Limits& limits) {
  std::string expected;
  if (reason == CutReason::kTls) return ": expected text";
  if (reason == CutReason::kHttp) expected = "expected a command";
  if (reason == CutReason::kRequestTime)
    expected = "expected the end of the request within " + std::to_string(limits.requestSeconds) + " s";
  if (reason == CutReason::kLine) expected = "expected at most " + std::to_string(limits.lineBytes);
  if (reason == CutReason::kRequest) expected = "expected at most " + std::to_string(limits.requestBytes);
  if (expected.empty()) return "";
  return ": " + expected + ", found \"" + FirstLineOf(sent) + "\"";
}

}  // namespace tavix::daemon
