#pragma once

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>

#include "programs/web/interface/Call.h"
#include "programs/web/interface/JsonBody.h"

// Changes that go back by themselves unless somebody confirms them (docs/history.md).
namespace tavix::web {

Response ShowPending(Call& call);
Response ConfirmPending(Call& call);
Response RevertPending(Call& call);

// A change that is to be put on trial. Its name shows for good that this program armed it: whoever may write may
// confirm it, also behind a restart.
//
// Threads: one, the worker's.
class Trial {
 public:
  // Throws Refusal, 400, when the member "confirm" of a request is neither true nor false nor a number of seconds;
  // nothing when no trial is wanted.
  static std::optional<Trial> Read(const JsonValue& body);

  // Has the next change of the connection put on trial. Throws Refusal, 501, when the daemon can't.
  void Arm(Call& call) const;

  // What is on trial behind the change; null: it has changed nothing.
  nlohmann::json Describe(Call& call) const;

 private:
  Trial(unsigned seconds, std::string name) : _seconds(seconds), _name(std::move(name)) {}

  unsigned _seconds;
  std::string _name;
};

}  // namespace tavix::web
