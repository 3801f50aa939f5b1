// Whatever the target of a request is, it gets in or is refused with a status that says why; and the parameters of a
// query are the same once they are percent-encoded anew.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "programs/common/client/Json.h"
#include "programs/web/http/Query.h"
#include "programs/web/http/Refusal.h"
#include "programs/web/http/RequestParser.h"
#include "programs/web/service/Gate.h"

using namespace tavix;
using namespace tavix::web;

namespace {

constexpr size_t kMaxHead = 16384;
constexpr const char* kMethods[] = {"GET", "HEAD", "POST", "PUT", "PATCH", "DELETE"};
constexpr const char* kParameters[] = {"name",   "pattern", "prefix", "before", "count",
                                       "dryRun", "in",      "since",  "wait",   "a b"};

void Require(bool condition) {
  if (!condition) std::abort();
}

// Errors are refusals, and nothing else. 302 leads to the page.
template <class Read>
void ReadOrRefuse(Read read) {
  try {
    read();
  } catch (const Refusal& refusal) {
    const int status = refusal.GetStatus();
    Require(status == 302 || (status >= 400 && status < 500));
    Require(!ToResponse(refusal).body.empty());
  }
}

std::string Encode(const std::string& bytes) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    text += {'%', kDigits[byte / 16], kDigits[byte % 16]};
  }
  return text;
}

void RequireSameWhenEncoded(const Query& query) {
  for (const char* name : kParameters) {
    const std::vector<std::string> values = query.FindAll(name);
    std::string text;
    for (const std::string& value : values) text += "&" + Encode(name) + "=" + Encode(value);
    const Query again(text);
    Require(again.FindAll(name) == values);
    Require(again.Find(name) == query.Find(name));
  }
}

// As the requests of the interface read their parameters.
void ReadParameters(const Query& query) {
  for (const char* name : kParameters) {
    ReadOrRefuse([&] { query.FindNames(name); });
    ReadOrRefuse([&] { query.HasFlag(name); });
    ReadOrRefuse([&] { Require(query.FindNumber(name, 1, 256, 50) <= 256); });
    ReadOrRefuse([&] {
      const std::string bytes = query.RequireName(name);
      Require(programs::NameFromJson(programs::NameToJson(bytes).get<std::string>()) == bytes);
    });
  }
}

// Without a method where the target is none.
Request Parse(const std::string& method, std::string_view target) {
  RequestParser parser{{kMaxHead, 0}};
  parser.Take(method + " " + std::string(target) + " HTTP/1.1\r\nHost: localhost\r\nContent-Length: 0\r\n\r\n");
  if (parser.GetState() != RequestParser::State::kComplete) return {};
  return std::move(parser.GetRequest());
}

// Lets everybody in who asks for what there is.
class Door {
 public:
  explicit Door(const std::string& basePath)
      : _options(MakeOptions(basePath)), _access(_options), _gate(_options, _access) {}

  void Admit(const Request& request) {
    ReadOrRefuse([&] {
      const Gate::Entry entry = _gate.Admit({"127.0.0.1", true, false, {}}, request, false);
      Require(!entry.route || request.path == _options.basePath + "/api/v1" + entry.route->path);
    });
  }

 private:
  static Options MakeOptions(const std::string& basePath) {
    Options options;
    options.basePath = basePath;
    return options;
  }

  const Options _options;
  Access _access;
  Gate _gate;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static Door doors[] = {Door(""), Door("/settings")};
  const std::string_view target(reinterpret_cast<const char*>(data), size);
  for (const char* method : kMethods) {
    const Request request = Parse(method, target);
    if (request.method.empty()) continue;
    Require(request.method == method);
    for (Door& door : doors) door.Admit(request);
    ReadOrRefuse([&] {
      const Query query(request.query);
      RequireSameWhenEncoded(query);
      ReadParameters(query);
    });
  }
  return 0;
}
