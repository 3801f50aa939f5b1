#include "programs/bridge/engines/MqttLink.h"

#include <mqtt_protocol.h>
#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "programs/bridge/engines/Credentials.h"
#include "programs/bridge/engines/KeyPrefix.h"
#include "tavix/osa/Exception.h"

namespace tavix::bridge {

namespace {

constexpr int kQos = 1;
constexpr int kFirstFailure = 0x80;  // of the protocol's reason codes
constexpr int kStepMilliseconds = 1000;
constexpr std::chrono::milliseconds kFarewell{2000};

// The library is set up once and stays so to the end of the process: other links may use it.
void SetUpLibrary() {
  static const int result = mosquitto_lib_init();
  if (result != MOSQ_ERR_SUCCESS) throw osa::Exception("Failed to set up MQTT: %s", mosquitto_strerror(result));
}

// MQTT's "#" stands for the level above as well; what came of that is dropped.
std::string MakeFilter(const std::string& prefix) {
  return IsTree(prefix) ? prefix + "#" : prefix;
}

// One of each property at most, freed with the object.
class Properties {
 public:
  Properties() = default;
  ~Properties() { mosquitto_property_free_all(&_list); }

  Properties(const Properties&) = delete;
  Properties& operator=(const Properties&) = delete;

  void Add(int identifier, std::uint32_t value) { mosquitto_property_add_int32(&_list, identifier, value); }
  const mosquitto_property* Get() const { return _list; }

 private:
  mosquitto_property* _list = nullptr;
};

// What the library takes lists of strings as.
std::vector<char*> PointersOf(std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  for (std::string& text : texts) pointers.push_back(text.data());
  return pointers;
}

std::string SpellError(int result) {
  return result == MOSQ_ERR_ERRNO ? std::strerror(errno) : mosquitto_strerror(result);
}

}  // namespace

MqttLink::MqttLink(const MqttSettings& settings, Observer& observer) : _settings(settings), _observer(observer) {
  SetUpLibrary();
  _client.reset(mosquitto_new(settings.clientId.c_str(), true, this));
  if (!_client)
    throw osa::Exception("Failed to make a client '%s': %s", settings.clientId.c_str(), std::strerror(errno));
}

MqttLink::~MqttLink() = default;

void MqttLink::Begin(const std::optional<LastWill>& will) {
  SetUp(will);
  if (!HasFailed()) Connect();
  _end = Clock::now() + _settings.patience;
}

void MqttLink::SetUp(const std::optional<LastWill>& will) {
  mosquitto* const client = _client.get();
  mosquitto_int_option(client, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
  mosquitto_int_option(client, MOSQ_OPT_TCP_NODELAY, 1);
  mosquitto_int_option(client, MOSQ_OPT_SEND_MAXIMUM, static_cast<int>(Engine::kMaxInFlight));
  mosquitto_int_option(client, MOSQ_OPT_RECEIVE_MAXIMUM, static_cast<int>(Engine::kMaxInFlight));
  mosquitto_connect_v5_callback_set(client, OnConnect);
  mosquitto_disconnect_v5_callback_set(client, OnDisconnect);
  mosquitto_publish_v5_callback_set(client, OnPublish);
  mosquitto_message_v5_callback_set(client, OnMessage);
  mosquitto_subscribe_v5_callback_set(client, OnSubscribe);
  mosquitto_unsubscribe_v5_callback_set(client, OnUnsubscribe);
  mosquitto_log_callback_set(client, OnLog);
  const Credentials credentials = ReadCredentials(_settings.credentialsFile);
  if (!credentials.user.empty())
    FailBy(mosquitto_username_pw_set(client, credentials.user.c_str(), credentials.password.c_str()));
  SetUpTls(credentials);
  if (will)
    FailBy(mosquitto_will_set_v5(client, will->key.c_str(), static_cast<int>(will->bytes.size()), will->bytes.data(),
                                 kQos, true, nullptr));
}

void MqttLink::SetUpTls(const Credentials& credentials) {
  if (_settings.caFile.empty() && IsLoopback(_settings.host)) return;
  mosquitto* const client = _client.get();
  const char* const certificate = credentials.certificate.empty() ? nullptr : credentials.certificate.c_str();
  const char* const key = credentials.key.empty() ? nullptr : credentials.key.c_str();
  if (_settings.caFile.empty()) {
    FailBy(mosquitto_int_option(client, MOSQ_OPT_TLS_USE_OS_CERTS, 1));
    if (certificate != nullptr) FailBy(mosquitto_tls_set(client, nullptr, "/etc/ssl/certs", certificate, key, nullptr));
  } else {
    FailBy(mosquitto_tls_set(client, _settings.caFile.c_str(), nullptr, certificate, key, nullptr));
  }
  // 1.2 and all that is later. That the name is checked is the library's own default.
  FailBy(mosquitto_tls_opts_set(client, 1, "tlsv1.2", nullptr));
}

void MqttLink::Connect() {
  mosquitto* const client = _client.get();
  const int keepAlive = static_cast<int>(_settings.keepAlive.count());
  Properties properties;
  properties.Add(MQTT_PROP_MAXIMUM_PACKET_SIZE, _settings.maxPacket);
  // The library takes properties only with a connect that would wait. Without a host that is refused at once, but the
  // properties stay for the next connect.
  mosquitto_connect_bind_v5(client, nullptr, _settings.port, keepAlive, nullptr, properties.Get());
  FailBy(mosquitto_connect_async(client, _settings.host.c_str(), _settings.port, keepAlive));
}

void MqttLink::Step(int wake) {
  pollfd looks[] = {{mosquitto_socket(_client.get()), POLLIN, 0}, {wake, POLLIN, 0}};
  if (mosquitto_want_write(_client.get())) looks[0].events |= POLLOUT;
  poll(looks, 2, kStepMilliseconds);
  if ((looks[0].revents & (POLLIN | POLLERR | POLLHUP)) != 0) Receive();
  if (_isMarkDue && !HasFailed()) SendMark();
  if (!HasFailed()) Send();
  if (!HasFailed()) Watch();
}

// TLS may hold more than one packet of what was received, and the socket does not show it. So this goes on while
// anything comes.
void MqttLink::Receive() {
  do {
    _hasReceived = false;
    FailBy(mosquitto_loop_read(_client.get(), 1));
  } while (_hasReceived && !HasFailed());
}

void MqttLink::Send() {
  if (mosquitto_want_write(_client.get())) FailBy(mosquitto_loop_write(_client.get(), 1));
}

void MqttLink::Watch() {
  FailBy(mosquitto_loop_misc(_client.get()));
  if (!_isConnected && Clock::now() > _end) Fail("no answer to the connect");
}

void MqttLink::End() {
  _isEnding = true;
  const Clock::time_point end = Clock::now() + kFarewell;
  mosquitto_disconnect_v5(_client.get(), MQTT_RC_DISCONNECT_WITH_WILL_MSG, nullptr);
  while (!HasFailed() && mosquitto_want_write(_client.get()) && Clock::now() < end) {
    pollfd look{mosquitto_socket(_client.get()), POLLOUT, 0};
    if (poll(&look, 1, 100) > 0) Send();
  }
}

void MqttLink::Put(const std::string& topic, const std::optional<std::string>& bytes, std::chrono::seconds expiry) {
  if (topic.find('\0') != std::string::npos) return RefusePut(topic, "a topic has no NUL");
  int id = 0;
  Properties properties;
  if (expiry.count() > 0) properties.Add(MQTT_PROP_MESSAGE_EXPIRY_INTERVAL, static_cast<std::uint32_t>(expiry.count()));
  const int size = bytes ? static_cast<int>(bytes->size()) : 0;
  const int result = mosquitto_publish_v5(_client.get(), &id, topic.c_str(), size, bytes ? bytes->data() : nullptr,
                                          kQos, true, properties.Get());
  if (result == MOSQ_ERR_SUCCESS) {
    _puts[id] = topic;
  } else if (result == MOSQ_ERR_NO_CONN || result == MOSQ_ERR_CONN_LOST) {
    FailBy(result);
  } else {
    RefusePut(topic, SpellError(result));
  }
}

void MqttLink::Follow(const std::vector<std::string>& prefixes) {
  const std::vector<std::string> added = FindAdded(_prefixes, prefixes);
  Unsubscribe(FindAdded(prefixes, _prefixes));
  const bool isFirst = _mark == 0;
  _prefixes = prefixes;
  if (isFirst) {
    std::vector<std::string> topics = added;
    topics.push_back(_settings.mark);
    Subscribe(topics);
  } else if (!added.empty()) {
    Subscribe(added);
  } else {
    SendMark();
  }
}

void MqttLink::Subscribe(const std::vector<std::string>& topics) {
  std::vector<std::string> filters;
  std::transform(topics.begin(), topics.end(), std::back_inserter(filters), MakeFilter);
  int id = 0;
  FailBy(mosquitto_subscribe_multiple(_client.get(), &id, static_cast<int>(filters.size()), PointersOf(filters).data(),
                                      kQos, 0, nullptr));
  _subscriptions[id] = std::move(filters);
  ++_mark;  // what is under way shows nothing of these
}

void MqttLink::Unsubscribe(const std::vector<std::string>& topics) {
  if (topics.empty()) return;
  std::vector<std::string> filters;
  std::transform(topics.begin(), topics.end(), std::back_inserter(filters), MakeFilter);
  FailBy(mosquitto_unsubscribe_multiple(_client.get(), nullptr, static_cast<int>(filters.size()),
                                        PointersOf(filters).data(), nullptr));
}

void MqttLink::SendMark() {
  _isMarkDue = false;
  const std::string text = std::to_string(++_mark);
  int id = 0;
  FailBy(mosquitto_publish_v5(_client.get(), &id, _settings.mark.c_str(), static_cast<int>(text.size()), text.data(),
                              kQos, false, nullptr));
  _markId = id;
}

void MqttLink::Take(const mosquitto_message& message) {
  const std::string topic = message.topic;
  const char* const bytes = static_cast<const char*>(message.payload);
  const std::string text(bytes, bytes == nullptr ? 0 : static_cast<std::size_t>(message.payloadlen));
  if (topic == _settings.mark) {
    if (text == std::to_string(_mark)) _observer.OnSynced();
  } else if (IsFollowedByAny(_prefixes, topic)) {
    _observer.OnItem(text.empty() ? Item{topic, std::nullopt, 0} : Item{topic, text, 0});
  }
}

void MqttLink::FinishPut(int id, int code) {
  const char* const reason = code < kFirstFailure ? nullptr : mosquitto_reason_string(code);
  if (id == _markId) {
    if (reason != nullptr) Fail("may not write the mark '" + _settings.mark + "': " + reason);
    _markId.reset();
    return;
  }
  const auto at = _puts.find(id);
  if (at == _puts.end()) return;
  const std::string topic = std::move(at->second);
  _puts.erase(at);
  if (reason != nullptr) return RefusePut(topic, reason);
  PutDone done;
  done.key = topic;
  _observer.OnPutDone(std::move(done));
}

void MqttLink::RefusePut(const std::string& topic, const std::string& reason) {
  PutDone done;
  done.key = topic;
  done.outcome = PutDone::Outcome::kRefused;
  done.reason = reason;
  _observer.OnPutDone(std::move(done));
}

void MqttLink::FinishSubscription(int id, int count, const int* codes) {
  const auto at = _subscriptions.find(id);
  if (at == _subscriptions.end()) return;
  const std::vector<std::string> filters = std::move(at->second);
  _subscriptions.erase(at);
  for (int i = 0; i < count && static_cast<std::size_t>(i) < filters.size(); ++i) {
    if (codes[i] >= kFirstFailure)
      return Fail("may not read '" + filters[static_cast<std::size_t>(i)] + "': " + mosquitto_reason_string(codes[i]));
  }
  _isMarkDue = _subscriptions.empty();
}

void MqttLink::Fail(const std::string& reason) {
  if (HasFailed()) return;
  _reason = "MQTT with " + _settings.host + ":" + std::to_string(_settings.port) + ": " + reason;
  if (!_lastError.empty()) _reason += " (" + _lastError + ")";
}

void MqttLink::FailBy(int result) {
  if (result != MOSQ_ERR_SUCCESS) Fail(SpellError(result));
}

void MqttLink::OnConnect(mosquitto*, void* self, int code, int, const mosquitto_property*) {
  MqttLink& link = *static_cast<MqttLink*>(self);
  link._hasReceived = true;
  if (code != 0) return link.Fail(std::string("refused: ") + mosquitto_reason_string(code));
  link._isConnected = true;
  link._observer.OnConnected();
}

void MqttLink::OnDisconnect(mosquitto*, void* self, int code, const mosquitto_property*) {
  MqttLink& link = *static_cast<MqttLink*>(self);
  if (link._isEnding) return;
  link.Fail(code >= kFirstFailure ? std::string("ended: ") + mosquitto_reason_string(code)
                                  : "lost: " + (code == 0 ? std::string("closed by the broker") : SpellError(code)));
}

void MqttLink::OnPublish(mosquitto*, void* self, int id, int code, const mosquitto_property*) {
  MqttLink& link = *static_cast<MqttLink*>(self);
  link._hasReceived = true;
  link.FinishPut(id, code);
}

void MqttLink::OnMessage(mosquitto*, void* self, const mosquitto_message* message, const mosquitto_property*) {
  MqttLink& link = *static_cast<MqttLink*>(self);
  link._hasReceived = true;
  link.Take(*message);
}

void MqttLink::OnSubscribe(mosquitto*, void* self, int id, int count, const int* codes, const mosquitto_property*) {
  MqttLink& link = *static_cast<MqttLink*>(self);
  link._hasReceived = true;
  link.FinishSubscription(id, count, codes);
}

void MqttLink::OnUnsubscribe(mosquitto*, void* self, int, const mosquitto_property*) {
  static_cast<MqttLink*>(self)->_hasReceived = true;
}

void MqttLink::OnLog(mosquitto*, void* self, int level, const char* text) {
  if (level == MOSQ_LOG_ERR) static_cast<MqttLink*>(self)->_lastError = text;
}

}  // namespace tavix::bridge
