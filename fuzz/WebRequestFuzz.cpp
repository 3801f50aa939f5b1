// A request of HTTP is the same however its bytes arrive: as a whole, byte by byte, or in pieces. Its query and its
// body are read or refused, and whatever is refused has a status.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "programs/web/access/Guard.h"
#include "programs/web/http/Query.h"
#include "programs/web/http/Refusal.h"
#include "programs/web/http/RequestParser.h"
#include "programs/web/interface/Conditions.h"
#include "programs/web/interface/JsonBody.h"

using namespace tavix::web;
using State = RequestParser::State;

namespace {

constexpr size_t kMaxHead = 1024;
constexpr size_t kMaxBody = 4096;

void Require(bool condition) {
  if (!condition) std::abort();
}

struct Outcome {
  RequestParser parser{{kMaxHead, kMaxBody}};
  size_t taken = 0;
};

// Pieces of so many bytes, until nothing more is taken.
Outcome Parse(std::string_view bytes, size_t pieceSize) {
  Outcome outcome;
  RequestParser& parser = outcome.parser;
  while (outcome.taken < bytes.size()) {
    const std::string_view piece = bytes.substr(outcome.taken, pieceSize);
    const size_t taken = parser.Take(piece);
    Require(taken <= piece.size());
    outcome.taken += taken;
    if (parser.GetState() == State::kHeadEnd) {
      parser.AcceptBody(parser.GetAnnouncedBytes());
    } else if (taken < piece.size()) {
      break;
    }
  }
  return outcome;
}

void RequireEqual(Outcome& a, Outcome& b) {
  Require(a.parser.GetState() == b.parser.GetState());
  Require(a.parser.GetStatus() == b.parser.GetStatus());
  if (a.parser.GetState() == State::kRefused) return;
  Require(a.taken == b.taken);
  const Request& one = a.parser.GetRequest();
  const Request& other = b.parser.GetRequest();
  Require(one.method == other.method && one.path == other.path && one.query == other.query);
  Require(one.headers == other.headers && one.body == other.body);
}

// Errors are refusals, and nothing else.
template <class Read>
void ReadOrRefuse(Read read) {
  try {
    read();
  } catch (const Refusal& refusal) {
    Require(refusal.GetStatus() >= 400 && refusal.GetStatus() < 500);
    Require(!ToResponse(refusal).body.empty());
  }
}

void ReadRequest(const Request& request) {
  Require(request.Count("host") == 1 && request.body.size() <= kMaxBody);
  ReadOrRefuse([&] { Query(request.query).RequireOnly("name pattern*"); });
  ReadOrRefuse([&] { Query(request.query).FindNames("pattern"); });
  ReadOrRefuse([&] { RequireKnownType(request); });
  ReadOrRefuse([&] { Conditions{request}; });
  ReadOrRefuse([&] { ParseJsonBody(request.body); });
  FindCookies(request, "login");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  Outcome whole = Parse(bytes, std::max<size_t>(1, size));
  for (const size_t pieceSize : {size_t{1}, size_t{7}, size_t{100}}) {
    Outcome parts = Parse(bytes, pieceSize);
    RequireEqual(whole, parts);
  }
  if (whole.parser.GetState() == State::kComplete) ReadRequest(whole.parser.GetRequest());
  ReadOrRefuse([&] { ParseJsonBody(bytes); });
  return 0;
}
