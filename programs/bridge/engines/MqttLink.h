#pragma once

#include <mosquitto.h>

#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "programs/bridge/engines/Engine.h"
#include "programs/bridge/engines/MqttSettings.h"

namespace tavix::bridge {

struct Credentials;

// One link to a broker. It is driven: what it receives calls its observer within Step.
//
// Threads: one.
// Errors:  HasFailed and GetReason; the constructor throws osa::Exception.
class MqttLink {
 public:
  // What is called when something came; of the thread that calls Step. It calls nothing of the link: the library holds
  // locks of its own meanwhile.
  class Observer {
   public:
    virtual ~Observer() = default;

    virtual void OnConnected() = 0;
    virtual void OnItem(Item item) = 0;
    virtual void OnSynced() = 0;
    virtual void OnPutDone(PutDone done) = 0;
  };

  // Both outlive the link.
  MqttLink(const MqttSettings& settings, Observer& observer);
  ~MqttLink();

  MqttLink(const MqttLink&) = delete;
  MqttLink& operator=(const MqttLink&) = delete;

  // Begins the connect. May wait for the resolution of the host's name.
  void Begin(const std::optional<LastWill>& will);

  // Waits until the broker or the descriptor "wake" has something, a second at most, and does what there is to do.
  void Step(int wake);

  void Put(const std::string& topic, const std::optional<std::string>& bytes, std::chrono::seconds expiry);
  void Follow(const std::vector<std::string>& prefixes);

  // Leaves; the broker publishes the last will. Gives up after a moment when the broker does not read.
  void End();

  bool HasFailed() const { return !_reason.empty(); }
  const std::string& GetReason() const { return _reason; }

 private:
  struct Free {
    void operator()(mosquitto* client) const { mosquitto_destroy(client); }
  };
  using Clock = std::chrono::steady_clock;

  void SetUp(const std::optional<LastWill>& will);
  void SetUpTls(const Credentials& credentials);
  void Connect();
  void Receive();
  void Send();
  void Watch();
  void Fail(const std::string& reason);
  void FailBy(int result);
  void Unsubscribe(const std::vector<std::string>& topics);
  void Subscribe(const std::vector<std::string>& topics);
  void SendMark();
  void Take(const mosquitto_message& message);
  void FinishPut(int id, int code);
  void RefusePut(const std::string& topic, const std::string& reason);
  void FinishSubscription(int id, int count, const int* codes);

  static void OnConnect(mosquitto*, void* self, int code, int flags, const mosquitto_property*);
  static void OnDisconnect(mosquitto*, void* self, int code, const mosquitto_property*);
  static void OnPublish(mosquitto*, void* self, int id, int code, const mosquitto_property*);
  static void OnMessage(mosquitto*, void* self, const mosquitto_message* message, const mosquitto_property*);
  static void OnSubscribe(mosquitto*, void* self, int id, int count, const int* codes, const mosquitto_property*);
  static void OnUnsubscribe(mosquitto*, void* self, int id, const mosquitto_property*);
  static void OnLog(mosquitto*, void* self, int level, const char* text);

  const MqttSettings& _settings;
  Observer& _observer;
  std::unique_ptr<mosquitto, Free> _client;
  Clock::time_point _end;  // of the wait for the answer to the connect
  bool _isConnected = false;
  bool _isEnding = false;
  std::vector<std::string> _prefixes;
  std::map<int, std::vector<std::string>> _subscriptions;  // topics that the broker has not confirmed yet, by number
  std::map<int, std::string> _puts;                        // likewise
  std::optional<int> _markId;                              // likewise
  unsigned long _mark = 0;                                 // the number of the last one; older ones count for nothing
  bool _isMarkDue = false;    // to be sent once the library calls nothing: it has locks then
  bool _hasReceived = false;  // since that was last asked
  std::string _lastError;     // of the library's log
  std::string _reason;
};

}  // namespace tavix::bridge
