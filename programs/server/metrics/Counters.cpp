#include "programs/server/metrics/Counters.h"

namespace tavix::daemon {

const char* NameOf(Refusal reason) {
  switch (reason) {
    case Refusal::kTooMany:
      return "too_many";
    case Refusal::kDescriptors:
      return "descriptors";
    case Refusal::kUser:
      return "user";
    case Refusal::kSetup:
      return "setup";
    case Refusal::kCount:
      break;
  }
  return "";
}

const char* NameOf(CutReason reason) {
  switch (reason) {
    case CutReason::kTls:
      return "tls";
    case CutReason::kHttp:
      return "http";
    case CutReason::kError:
      return "error";
    case CutReason::kMemory:
      return "memory";
    case CutReason::kHardBacklog:
      return "hard_backlog";
    case CutReason::kHeldBacklog:
      return "held_backlog";
    case CutReason::kAllBacklog:
      return "all_backlog";
    case CutReason::kBacklog:
      return "backlog";
    case CutReason::kRequestTime:
      return "request_time";
    case CutReason::kLine:
      return "line";
    case CutReason::kRequest:
      return "request";
    case CutReason::kAllRequests:
      return "all_requests";
    case CutReason::kCount:
      break;
  }
  return "";
}

}  // namespace tavix::daemon
