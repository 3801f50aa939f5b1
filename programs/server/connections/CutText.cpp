#include "programs/server/connections/CutText.h"

namespace tavix::daemon {

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

}  // namespace tavix::daemon
