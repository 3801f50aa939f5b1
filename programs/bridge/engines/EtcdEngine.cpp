#include "programs/bridge/engines/EtcdEngine.h"

#include <curl/curl.h>

#include <memory>

#include "tavix/osa/Exception.h"

namespace tavix::bridge {

namespace {

struct FreeUrl {
  void operator()(CURLU* url) const { curl_url_cleanup(url); }
};

std::string GetPart(CURLU* url, CURLUPart part) {
  char* text = nullptr;
  if (curl_url_get(url, part, &text, 0) != CURLUE_OK) return {};
  const std::string copy = text;
  curl_free(text);
  return copy;
}

void CheckEndpoint(const std::string& endpoint) {
  const std::unique_ptr<CURLU, FreeUrl> url(curl_url());
  if (!url || curl_url_set(url.get(), CURLUPART_URL, endpoint.c_str(), 0) != CURLUE_OK)
    throw osa::Exception("The endpoint '%s' is none like https://HOST:PORT", endpoint.c_str());
  const std::string scheme = GetPart(url.get(), CURLUPART_SCHEME);
  std::string host = GetPart(url.get(), CURLUPART_HOST);
  if (host.size() > 2 && host.front() == '[') host = host.substr(1, host.size() - 2);
  const bool isAddressAlone = GetPart(url.get(), CURLUPART_USER).empty() &&
                              GetPart(url.get(), CURLUPART_PASSWORD).empty() && endpoint.back() != '/';
  if (!isAddressAlone || (scheme != "https" && scheme != "http"))
    throw osa::Exception("An endpoint is none like https://HOST:PORT");  // it may hold a password
  if (scheme == "http" && !IsLoopback(host))
    throw osa::Exception("The endpoint '%s' is without TLS, which only loopback may be", endpoint.c_str());
}

}  // namespace

EtcdEngine::EtcdEngine(const EtcdSettings& settings, EventQueue& events)
    : ThreadedEngine("EtcdEngine", events), _settings(settings) {
  if (settings.endpoints.empty()) throw osa::Exception("The cluster of etcd has no endpoints");
  if (settings.prefix.empty() || settings.prefix.back() != '/')
    throw osa::Exception("The prefix '%s' of etcd does not end with '/'", settings.prefix.c_str());
  for (const std::string& endpoint : settings.endpoints) CheckEndpoint(endpoint);
}

EtcdEngine::~EtcdEngine() {
  Close();
}

std::string EtcdEngine::RunLink(const ConnectOptions& options) {
  _knownSource = options.source;
  std::string reasons;
  for (std::size_t count = 0; count < _settings.endpoints.size() && !IsClosing(); ++count) {
    const std::string& endpoint = _settings.endpoints[_endpoint];
    _endpoint = (_endpoint + 1) % _settings.endpoints.size();
    EtcdLink link(_settings, endpoint, *this);
    RunUntilLost(link);
    if (link.IsConnected()) return link.GetReason();
    reasons += (reasons.empty() ? "" : "; ") + link.GetReason();
  }
  return reasons;
}

void EtcdEngine::RunUntilLost(EtcdLink& link) {
  while (!link.HasFailed() && !IsClosing()) {
    link.Step(GetWakeDescriptor());
    for (const Request& request : TakeRequests()) CarryOut(link, request);
  }
}

void EtcdEngine::CarryOut(EtcdLink& link, const Request& request) const {
  if (const auto* put = std::get_if<PutRequest>(&request)) {
    link.Put(put->key, put->bytes, put->options.expected);
  } else {
    const auto& follow = std::get<FollowRequest>(request);
    link.Follow(follow.prefixes, _isResumed ? follow.from : 0);
  }
}

void EtcdEngine::OnConnected(const std::string& source) {
  _isResumed = source == _knownSource;
  ReportConnected({_isResumed, source});
}

}  // namespace tavix::bridge
