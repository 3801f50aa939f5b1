#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tavix/settings/client/LineSocket.h"
#include "tavix/settings/client/NoticeQueue.h"
#include "tavix/settings/client/ProtocolOptions.h"

namespace tavix::settings::client {

// What lies between the socket and the requests of ProtocolClient: one call after the other, its request and the lines
// of its reply, with the notices in front of them taken out.
//
// The caller's thread alone moves a connection on, by calls:
//
//     between calls   Only notices may come. They stay in the socket until a call takes them.
//     sending         Before a request its notices are taken, and so is the end of the connection found. Any other text
//                     there belongs to no request, and fails the call: taken for the reply of this request, it would
//                     put all later ones off by one. While the server takes no more of the request, notices are taken,
//                     too; a reply that begins early waits in the socket.
//     reading         Notices come in front of each reply, and never inside of one. The last line of the last reply
//                     finishes the call.
//     closed          Any exception before a call is finished closes the connection at once: where the next reply
//                     begins is unknown then. There is no way back.
//
// Threads: one.
// Errors:  ProtocolException; what the trace and the progress throw, and std::bad_alloc, pass through.
// Methods: some more than twenty; they are the steps of a call in the order above.
class ProtocolExchange {
 public:
  using Clock = LineSocket::Clock;
  using Milliseconds = LineSocket::Milliseconds;

  // One call. Closes the connection when it ends unfinished.
  class Call {
   public:
    // Throws kLost when the connection is closed.
    explicit Call(ProtocolExchange& exchange) : _socket(exchange._socket) { _socket.StartCall(); }
    ~Call() {
      if (!_isFinished) _socket.Close();
    }

    Call(const Call&) = delete;
    Call& operator=(const Call&) = delete;

    // All that belongs to the call was sent and read.
    void Finish() { _isFinished = true; }

    // The same, with a reply: it shows that earlier writes were carried out.
    void FinishReply() {
      _socket.ConfirmWrites();
      Finish();
    }

   private:
    LineSocket& _socket;
    bool _isFinished = false;
  };

  ProtocolExchange(const ProtocolOptions& options, ProtocolTrace trace, size_t maxPendingNotices);

  LineSocket& GetSocket() { return _socket; }
  NoticeQueue& GetNotices() { return _notices; }

  void SetProgress(ProtocolProgress progress) { _progress = std::move(progress); }

  // What follows is called inside of a Call.

  // isWrite: the request may change the store.
  void Send(const std::string& request, bool isWrite);

  // The next line of a reply that has begun.
  std::string ReadLine();

  // The first line of a reply: notices in front of it are queued.
  std::string ReadFirstLine();
  void ExpectFirstLine(const char* line);

  // The lines up to the one that ends a payload, as text; "line" is the first of them.
  std::string ReadPayload(std::string line);

  // A whole reply to a get, as text.
  std::string ReadData();

  // The names behind the head of the list of subscriptions, and behind them the reply to a get of nothing.
  std::vector<std::string> ReadSubscribed();

  // The lines of the reply to an info, and the reply to a get of nothing behind it. None: the server is older than the
  // first request and answered the second alone.
  std::optional<std::string> ReadInfo(const std::string& title);

  // The reply to a get of nothing; "line" is its first.
  void RequireEmptyReply(const std::string& line);

  // From now on notices may come.
  void NoteSubscription() { _hasSubscribed = true; }

  // Whether a notice, or that some were dropped, can be popped by the end of the limit.
  bool AwaitNotice(std::optional<Milliseconds> limit);

  [[noreturn]] void FailUnexpected(const char* expected, const std::string& line);

 private:
  [[noreturn]] void FailUnasked(const std::string& line);
  [[noreturn]] void FailWrong(std::string text, const std::string& line, const char* end);
  void RequirePeer();
  std::optional<std::string> TakeReceivedLine();
  std::optional<std::string> TakeNoticeLines();
  void ShowLines(const std::string& text) const;
  void ShowReceived(const std::string& line) const;

  LineSocket _socket;
  const ProtocolTrace _trace;
  ProtocolProgress _progress;
  NoticeQueue _notices;
  bool _hasSubscribed = false;
};

}  // namespace tavix::settings::client
