#include "programs/bridge/engines/EtcdTransfers.h"

#include <algorithm>
#include <utility>

#include "tavix/osa/Exception.h"

namespace tavix::bridge {

namespace {

struct FreeEasy {
  void operator()(CURL* easy) const { curl_easy_cleanup(easy); }
};
struct FreeList {
  void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};

// The library is set up once and stays so to the end of the process: other links may use it.
void SetUpLibrary() {
  static const CURLcode result = curl_global_init(CURL_GLOBAL_DEFAULT);
  if (result != CURLE_OK) throw osa::Exception("Failed to set up HTTP: %s", curl_easy_strerror(result));
}

}  // namespace

struct EtcdTransfers::Transfer {
  int number = 0;
  std::string body;
  Line line;
  Done done;
  Answer answer;
  bool isTooLong = false;
  char error[CURL_ERROR_SIZE] = "";
  std::unique_ptr<curl_slist, FreeList> headers;
  CURLM* multi = nullptr;  // that it is a part of
  std::unique_ptr<CURL, FreeEasy> easy;

  Transfer() = default;
  Transfer(const Transfer&) = delete;
  Transfer& operator=(const Transfer&) = delete;
  ~Transfer() {
    if (multi != nullptr) curl_multi_remove_handle(multi, easy.get());
  }
};

EtcdTransfers::EtcdTransfers(const EtcdSettings& settings, const std::string& endpoint, const Credentials& credentials)
    : _settings(settings), _endpoint(endpoint), _credentials(credentials) {
  SetUpLibrary();
  _multi.reset(curl_multi_init());
  if (!_multi) throw osa::Exception("Failed to set up HTTP");
}

EtcdTransfers::~EtcdTransfers() = default;

void EtcdTransfers::Post(const std::string& path, const std::string& body, Done done) {
  Transfer& transfer = Add(path, body, std::move(done));
  curl_easy_setopt(transfer.easy.get(), CURLOPT_TIMEOUT, static_cast<long>(_settings.patience.count()));
}

int EtcdTransfers::PostStream(const std::string& path, const std::string& body, Line line, Done done) {
  Transfer& transfer = Add(path, body, std::move(done));
  transfer.line = std::move(line);
  return transfer.number;
}

void EtcdTransfers::Drop(int number) {
  _transfers.remove_if([&](const Transfer& transfer) { return transfer.number == number; });
}

EtcdTransfers::Transfer& EtcdTransfers::Add(const std::string& path, const std::string& body, Done done) {
  Transfer& transfer = _transfers.emplace_back();
  transfer.number = ++_lastNumber;
  transfer.body = body;
  transfer.done = std::move(done);
  transfer.easy.reset(curl_easy_init());
  if (!transfer.easy) throw osa::Exception("Failed to make a request of HTTP");
  SetUp(transfer, path);
  curl_multi_add_handle(_multi.get(), transfer.easy.get());
  transfer.multi = _multi.get();
  return transfer;
}

void EtcdTransfers::SetUp(Transfer& transfer, const std::string& path) {
  CURL* const easy = transfer.easy.get();
  std::string header = "Content-Type: application/json";
  transfer.headers.reset(curl_slist_append(nullptr, header.c_str()));
  if (!_token.empty()) {
    header = "Authorization: " + _token;
    curl_slist_append(transfer.headers.get(), header.c_str());
  }
  curl_easy_setopt(easy, CURLOPT_URL, (_endpoint + path).c_str());
  curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(easy, CURLOPT_NOPROXY, "*");  // a variable of the environment sends nothing elsewhere
  curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(easy, CURLOPT_TCP_KEEPALIVE, 1L);
  curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT, static_cast<long>(_settings.patience.count()));
  curl_easy_setopt(easy, CURLOPT_HTTPHEADER, transfer.headers.get());
  curl_easy_setopt(easy, CURLOPT_POSTFIELDS, transfer.body.c_str());
  curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(transfer.body.size()));
  curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, transfer.error);
  curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &EtcdTransfers::Receive);
  curl_easy_setopt(easy, CURLOPT_WRITEDATA, &transfer);
  curl_easy_setopt(easy, CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
  curl_easy_setopt(easy, CURLOPT_SSL_VERIFYPEER, 1L);
  curl_easy_setopt(easy, CURLOPT_SSL_VERIFYHOST, 2L);
  if (!_settings.caFile.empty()) curl_easy_setopt(easy, CURLOPT_CAINFO, _settings.caFile.c_str());
  if (!_credentials.certificate.empty()) curl_easy_setopt(easy, CURLOPT_SSLCERT, _credentials.certificate.c_str());
  if (!_credentials.key.empty()) curl_easy_setopt(easy, CURLOPT_SSLKEY, _credentials.key.c_str());
}

void EtcdTransfers::Step(int wake) {
  curl_waitfd look{wake, CURL_WAIT_POLLIN, 0};
  curl_multi_poll(_multi.get(), &look, 1, 1000, nullptr);
  int running = 0;
  curl_multi_perform(_multi.get(), &running);
  GiveLines();
  int left = 0;
  while (const CURLMsg* message = curl_multi_info_read(_multi.get(), &left)) {
    if (message->msg == CURLMSG_DONE) Finish(message->easy_handle, message->data.result);
  }
}

// One stream after the other by its number: what is called may drop streams and add them.
void EtcdTransfers::GiveLines() {
  for (int number = 1, last = _lastNumber; number <= last; ++number) {
    while (true) {
      const auto at = Find([&](const Transfer& transfer) { return transfer.number == number; });
      if (at == _transfers.end() || !at->line) break;
      const std::size_t end = at->answer.body.find('\n');
      if (end == std::string::npos) break;
      const std::string line = at->answer.body.substr(0, end);
      at->answer.body.erase(0, end + 1);
      const Line give = at->line;
      give(line);
    }
  }
}

void EtcdTransfers::Finish(CURL* easy, CURLcode result) {
  const auto at = Find([&](const Transfer& transfer) { return transfer.easy.get() == easy; });
  if (at == _transfers.end()) return;
  Answer answer = std::move(at->answer);
  const Done done = std::move(at->done);
  if (result == CURLE_OK) {
    curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &answer.status);
  } else if (at->isTooLong) {
    answer.error = "the answer is longer than 64 MiB";
  } else {
    answer.error = at->error[0] != '\0' ? at->error : curl_easy_strerror(result);
  }
  _transfers.erase(at);
  done(answer);
}

std::list<EtcdTransfers::Transfer>::iterator EtcdTransfers::Find(const std::function<bool(const Transfer&)>& isIt) {
  return std::find_if(_transfers.begin(), _transfers.end(), isIt);
}

std::size_t EtcdTransfers::Receive(char* bytes, std::size_t size, std::size_t count, void* transfer) {
  Transfer& self = *static_cast<Transfer*>(transfer);
  if (self.answer.body.size() + size * count > kMaxAnswer) {
    self.isTooLong = true;
    return 0;
  }
  self.answer.body.append(bytes, size * count);
  return size * count;
}

}  // namespace tavix::bridge
