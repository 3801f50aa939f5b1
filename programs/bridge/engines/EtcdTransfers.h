#pragma once

#include <curl/curl.h>

#include <cstddef>
#include <functional>
#include <list>
#include <memory>
#include <string>

#include "programs/bridge/engines/Credentials.h"
#include "programs/bridge/engines/EtcdSettings.h"

namespace tavix::bridge {

// Requests to one endpoint of a cluster's JSON gateway, several at a time. It is driven: answers are given within Step.
//
// Threads: one.
// Errors:  a request's own go with its answer; the constructor and Post throw osa::Exception.
class EtcdTransfers {
 public:
  // What came of a request. A plain value.
  struct Answer {
    long status = 0;    // of HTTP; 0: there is none, but "error"
    std::string body;   // of a stream: what is behind its last line
    std::string error;  // for people
  };
  using Done = std::function<void(const Answer& answer)>;
  using Line = std::function<void(const std::string& line)>;

  static constexpr std::size_t kMaxAnswer = 64 * 1024 * 1024;  // bytes; of a stream: of one line

  // settings: outlives this.
  EtcdTransfers(const EtcdSettings& settings, const std::string& endpoint, const Credentials& credentials);
  ~EtcdTransfers();

  EtcdTransfers(const EtcdTransfers&) = delete;
  EtcdTransfers& operator=(const EtcdTransfers&) = delete;

  // Of all requests from now on.
  void SetToken(const std::string& token) { _token = token; }

  // Sends "body" to that path. done: called once.
  void Post(const std::string& path, const std::string& body, Done done);

  // The same for an answer that does not end. line: called for each line of it. Returns a number for Drop.
  int PostStream(const std::string& path, const std::string& body, Line line, Done done);

  // Ends a stream; nothing of it is called any more. A number of one that is over is ignored.
  void Drop(int number);

  // Waits until anything came or the descriptor "wake" is readable, a second at most, and calls what is to be called.
  // What is called may call everything but this.
  void Step(int wake);

 private:
  struct Transfer;

  Transfer& Add(const std::string& path, const std::string& body, Done done);
  void SetUp(Transfer& transfer, const std::string& path);
  void GiveLines();
  void Finish(CURL* easy, CURLcode result);
  std::list<Transfer>::iterator Find(const std::function<bool(const Transfer&)>& isIt);
  static std::size_t Receive(char* bytes, std::size_t size, std::size_t count, void* transfer);

  struct FreeMulti {
    void operator()(CURLM* multi) const { curl_multi_cleanup(multi); }
  };

  const EtcdSettings& _settings;
  const std::string _endpoint;
  const Credentials _credentials;
  std::string _token;
  int _lastNumber = 0;
  std::unique_ptr<CURLM, FreeMulti> _multi;
  std::list<Transfer> _transfers;  // gone before the multi handle, which they are parts of
};

}  // namespace tavix::bridge
