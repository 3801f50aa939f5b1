// A connection that is handed whole requests, as the framer finds them in bytes that arrive in pieces, answers and
// changes exactly what one does that reads the whole stream.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "tavix/core/IniFile.h"
#include "tavix/core/Logger.h"
#include "tavix/osa/Exception.h"
#include "tavix/settings/server/ClientHandler.h"
#include "tavix/settings/server/RequestFramer.h"
#include "tavix/settings/server/SerializationManager.h"
#include "tavix/settings/server/ServerEnv.h"
#include "tavix/settings/server/SettingsManager.h"

using namespace tavix;

namespace {

void SilenceLog() {
  core::IniFile quiet;
  quiet.SetValue("log", "log.level", "0");
  quiet.SetValue("log", "log.syslog", "false");
  core::Logger::ConfigureLogging(quiet, "log");
}

void Require(bool condition) {
  if (!condition) std::abort();
}

// Where every request ended that was carried out, what was answered, and what the store held in the end.
struct Outcome {
  std::vector<size_t> ends;
  std::string output;
  std::string userSettings;
  std::string allSettings;
  bool failed = false;

  bool operator==(const Outcome& other) const {
    return ends == other.ends && output == other.output && userSettings == other.userSettings &&
           allSettings == other.allSettings && failed == other.failed;
  }
};

// A handler with a store of its own.
class Session {
 public:
  // Handles what can be read there, the first byte of which is byte "begin" of the connection.
  void Handle(const std::string& bytes, size_t begin) {
    _in.clear();
    _in.str(bytes);
    try {
      while (_handler.HandleNext())
        _outcome.ends.push_back(begin + static_cast<size_t>(_in.rdbuf()->pubseekoff(0, std::ios::cur, std::ios::in)));
    } catch (const osa::Exception&) {
      _outcome.failed = true;
    }
  }

  bool HasEnded() const { return _outcome.failed || _handler.HasQuit(); }
  size_t CountHandled() const { return _outcome.ends.size(); }

  Outcome GetOutcome() {
    std::ostringstream userSettings;
    std::ostringstream allSettings;
    _store.DumpUserSettings(userSettings);
    _store.DumpAllSettings(allSettings);
    _outcome.userSettings = userSettings.str();
    _outcome.allSettings = allSettings.str();
    _outcome.output = _out.str();
    return _outcome;
  }

 private:
  settings::server::SettingsManager _store;
  settings::server::SerializationManager _serializers;
  settings::server::ServerEnv _env{&_store, &_serializers};
  std::istringstream _in;
  std::ostringstream _out;
  settings::server::ClientHandler _handler{&_env, &_in, &_out};
  Outcome _outcome;
};

// Sizes from 1 to "most"; always the same for the same bytes.
class PieceSizes {
 public:
  PieceSizes(const std::string& bytes, size_t most) : _most(most) {
    for (char byte : bytes) _state = (_state ^ static_cast<unsigned char>(byte)) * 1099511628211u;
  }

  size_t Next() {
    _state = _state * 6364136223846793005u + 1442695040888963407u;
    return 1 + static_cast<size_t>(_state >> 33) % _most;
  }

 private:
  const size_t _most;
  uint64_t _state = 14695981039346656037u;
};

// As a connection that receives the bytes in pieces, and then their end.
Outcome HandleFramed(const std::string& bytes, size_t maxOfAPiece) {
  Session session;
  settings::server::RequestFramer framer;
  PieceSizes sizes(bytes, maxOfAPiece);
  std::string received;
  size_t begin = 0;
  for (size_t at = 0; at < bytes.size() && !session.HasEnded();) {
    const size_t size = sizes.Next();
    received += bytes.substr(at, size);
    at += size;
    while (const size_t length = session.HasEnded() ? 0 : framer.FindEnd(received)) {
      Require(length <= received.size());
      if (maxOfAPiece == 1) Require(length == received.size());  // no byte too late
      const size_t handled = session.CountHandled();
      session.Handle(received.substr(0, length), begin);
      Require(session.HasEnded() || session.CountHandled() == handled + 1);
      received.erase(0, length);
      begin += length;
    }
    Require(framer.GetUnfinishedLine(received) <= received.size());
  }
  if (!session.HasEnded()) session.Handle(received, begin);
  return session.GetOutcome();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool silent = (SilenceLog(), true);
  static_cast<void>(silent);
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  Session whole;
  whole.Handle(bytes, 0);
  const Outcome expected = whole.GetOutcome();
  for (size_t maxOfAPiece : {size_t{1}, size_t{7}, size_t{100}}) Require(HandleFramed(bytes, maxOfAPiece) == expected);
  return 0;
}
