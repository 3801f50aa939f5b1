#include "programs/server/options/ListenAddress.h"

#include <optional>

#include "tavix/osa/EndpointText.h"
#include "tavix/osa/Exception.h"

namespace tavix::daemon {

ListenAddress ParseListenAddress(const std::string& text) {
  const std::optional<osa::EndpointText> parts = osa::SplitEndpoint(text);
  if (parts && parts->isUnix) {
    if (!osa::IsSocketPath(parts->path))
      throw osa::Exception("expected unix: and a path of at most %zu bytes", osa::kMaxSocketPathBytes);
    return {text, "", "", parts->path};
  }
  const bool isAddress = parts && !parts->host.empty() && parts->host.find('/') == std::string::npos;
  if (!isAddress || !parts->port || !osa::ParsePort(*parts->port)) {
    const std::string hint = osa::SuggestEndpoint(text);
    throw osa::Exception("expected HOST:PORT, [V6]:PORT or unix:PATH%s%s", hint.empty() ? "" : "; ", hint.c_str());
  }
  return {text, parts->host, *parts->port, ""};
}

}  // namespace tavix::daemon
