// Our clients in C++ and C as clients under test (docs/clients.md): adapter single|multi|protocol|c. Reads requests
// from standard input, and writes answers and events to standard output, each a line of JSON.
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <functional>
#include <iostream>
#include <map>
#include <nlohmann/json.hpp>

#include "conformance/adapters/cpp/Store.h"
#include "programs/common/client/Json.h"
#include "tavix/core/Logger.h"
#include "tavix/osa/Exception.h"
#include "tavix/settings/client/ProtocolException.h"

namespace tavix::conformance {
namespace {

using core::IniFile;
using nlohmann::json;
using settings::client::ProtocolException;

const char* ToCode(ProtocolException::Reason reason) {
  switch (reason) {
    case ProtocolException::Reason::kUsage:
      return "USAGE";
    case ProtocolException::Reason::kTimedOut:
      return "TIMEOUT";
    case ProtocolException::Reason::kNotProtocol:
    case ProtocolException::Reason::kTooLarge:
    case ProtocolException::Reason::kUnreadable:
      return "PARSE";
    case ProtocolException::Reason::kNoResources:
      return "BUSY";
    case ProtocolException::Reason::kTooOld:
      return "UNSUPPORTED";
    default:
      return "LOST";
  }
}

// The operation modes throw texts alone, which are known by what they say.
const char* ToCode(const osa::Exception& exception) {
  constexpr std::pair<std::string_view, const char*> kTexts[] = {
      {"can't be sent", "USAGE"},  {"older than this request", "UNSUPPORTED"}, {"Lock Timeout", "TIMEOUT"},
      {"lost connection", "LOST"}, {"failed to communicate", "LOST"},          {"Failed to connect", "LOST"},
  };
  const std::string_view text = exception.what();
  for (const auto& [part, code] : kTexts)
    if (text.find(part) != std::string_view::npos) return code;
  return "INTERNAL";
}

json ToFailure(const char* text, const std::string& code) {
  return {{"ok", false}, {"error", code}, {"text", text}};
}

std::string NameFromJson(const json& name) {
  return programs::FromJson(json({{name, json::object()}}).dump(), "request").begin()->first;
}

Store::Groups NamesFromJson(const json& names) {
  Store::Groups groups;
  for (const json& name : names) groups.insert(NameFromJson(name.get<std::string>()));
  return groups;
}

IniFile DocumentFromJson(const json& request, const char* part) {
  return programs::FromJson(request.at(part).dump(), "request");
}

// A part of an amendment that may be missing.
IniFile PartFromJson(const json& request, const char* part) {
  return request.contains(part) ? DocumentFromJson(request, part) : IniFile();
}

// The same, of groups with lists of keys.
IniFile KeysFromJson(const json& request, const char* part) {
  IniFile document;
  const json groups = request.value(part, json::object());
  for (const auto& [group, keys] : groups.items()) {
    IniFile::KeyMap& made = document[NameFromJson(group)];
    for (const json& key : keys) made[NameFromJson(key)] = "";
  }
  return document;
}

class Adapter {
 public:
  explicit Adapter(std::string mode) : _mode(std::move(mode)) {}

  // Until standard input ends.
  void Run() {
    std::string pending;
    while (Wait()) {
      if (!ReadInput(pending)) return;
      for (size_t end = 0; (end = pending.find('\n')) != std::string::npos; pending.erase(0, end + 1))
        std::cout << Answer(json::parse(pending.substr(0, end))).dump() << std::endl;
    }
  }

 private:
  // Returns once there is input.
  bool Wait() {
    while (true) {
      if (_store) _store->Advance();
      std::vector<pollfd> files = {{STDIN_FILENO, POLLIN, 0}};
      std::optional<Store::Milliseconds> delay;
      if (_store) {
        for (const int descriptor : _store->GetDescriptors()) files.push_back({descriptor, POLLIN, 0});
        delay = _store->GetDelay();
      }
      const int timeout = delay ? static_cast<int>(delay->count()) : -1;
      if (poll(files.data(), files.size(), timeout) < 0 && errno != EINTR) return false;
      if (files[0].revents != 0) return true;
    }
  }

  static bool ReadInput(std::string& pending) {
    char bytes[65536];
    const ssize_t count = read(STDIN_FILENO, bytes, sizeof bytes);
    if (count <= 0) return false;
    pending.append(bytes, static_cast<size_t>(count));
    return true;
  }

  json Answer(const json& request) {
    json answer;
    try {
      answer = CarryOut(request);
      answer["ok"] = true;
    } catch (const StoreError& error) {
      answer = ToFailure(error.what(), error.GetCode());
    } catch (const ProtocolException& exception) {
      answer = ToFailure(exception.what(), ToCode(exception.GetReason()));
    } catch (const osa::Exception& exception) {
      answer = ToFailure(exception.what(), ToCode(exception));
    } catch (const std::bad_alloc&) {
      answer = ToFailure("memory ran out", "NO_MEMORY");
    }
    answer["id"] = request.at("id");
    return answer;
  }

  json CarryOut(const json& request) {
    const std::string word = request.at("do");
    if (word == "hello") return {{"features", GetFeatures()}};
    if (word == "connect") return Connect(request);
    if (word == "close") return Close();
    if (!_store) throw StoreError("USAGE", "there is no connection");
    const auto found = Calls().find(word);
    if (found == Calls().end()) throw StoreError("UNSUPPORTED", "\"" + word + "\" is no request");
    return found->second(*this, request);
  }

  json GetFeatures() const {
    json features = {"get", "merge", "test-and-merge", "overwrite", "restore", "amend", "flush", "nopersist"};
    if (_mode != "single") features.insert(features.end(), {"watch", "unwatch", "initial", "resync", "once"});
    if (_mode == "protocol" || _mode == "c") features.insert(features.end(), {"timeout", "bounded"});
    return features;
  }

  json Connect(const json& request) {
    const std::string address = request.at("address");
    const Store::Milliseconds timeout(request.at("timeout_ms").get<int>());
    _store.reset();
    if (_mode == "single") _store = MakeSingleThreadedStore(address);
    if (_mode == "multi") _store = MakeMultiThreadedStore(address, _writer);
    if (_mode == "protocol") _store = MakeProtocolStore(address, timeout, _writer);
    if (_mode == "c") _store = MakeCStore(address, timeout, _writer);
    return json::object();
  }

  json Close() {
    _store.reset();
    return json::object();
  }

  json Get(const json& request) {
    return {{"groups", programs::ToJson(_store->Get(NamesFromJson(request.at("names"))))}};
  }

  json Merge(const json& request) {
    _store->Merge(DocumentFromJson(request, "change"), !request.value("persist", true));
    return json::object();
  }

  json TestAndMerge(const json& request) {
    return {{"done", _store->TestAndMerge(DocumentFromJson(request, "test"), DocumentFromJson(request, "change"))}};
  }

  json Overwrite(const json& request) {
    _store->Overwrite(NamesFromJson(request.at("names")), DocumentFromJson(request, "change"));
    return json::object();
  }

  json Amend(const json& request) {
    settings::Amendment amendment;
    amendment.present = PartFromJson(request, "present");
    amendment.absent = KeysFromJson(request, "absent");
    amendment.set = PartFromJson(request, "set");
    amendment.unset = KeysFromJson(request, "unset");
    amendment.replace = PartFromJson(request, "replace");
    return {{"done", _store->Amend(amendment)}};
  }

  json Restore(const json& request) {
    _store->Restore(NamesFromJson(request.at("names")));
    return json::object();
  }

  json Flush(const json&) {
    _store->Flush();
    return json::object();
  }

  json Watch(const json& request) {
    _store->Watch(++_watches, NamesFromJson(request.at("names")), request.value("initial", false));
    return {{"watch", _watches}};
  }

  json Unwatch(const json& request) {
    _store->Unwatch(request.at("watch"));
    return json::object();
  }

  using Call = json (*)(Adapter&, const json&);

  template <json (Adapter::*call)(const json&)>
  static json Do(Adapter& adapter, const json& request) {
    return (adapter.*call)(request);
  }

  static const std::map<std::string, Call>& Calls() {
    static const std::map<std::string, Call> calls = {
        {"get", Do<&Adapter::Get>},         {"merge", Do<&Adapter::Merge>},
        {"restore", Do<&Adapter::Restore>}, {"test-and-merge", Do<&Adapter::TestAndMerge>},
        {"flush", Do<&Adapter::Flush>},     {"overwrite", Do<&Adapter::Overwrite>},
        {"watch", Do<&Adapter::Watch>},     {"unwatch", Do<&Adapter::Unwatch>},
        {"amend", Do<&Adapter::Amend>},
    };
    return calls;
  }

  const std::string _mode;
  EventWriter _writer;
  int _watches = 0;
  std::unique_ptr<Store> _store;
};

int Main(const std::string& mode) {
  if (mode != "single" && mode != "multi" && mode != "protocol" && mode != "c") {
    std::fprintf(stderr, "adapter: expected single, multi, protocol or c, found \"%s\"\n", mode.c_str());
    return 2;
  }
  Adapter(mode).Run();
  return 0;
}

}  // namespace
}  // namespace tavix::conformance

int main(int argc, char** argv) {
  return tavix::conformance::Main(argc == 2 ? argv[1] : "");
}
