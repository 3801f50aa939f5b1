#pragma once

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>

#include "programs/common/client/Revisions.h"
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
  // A change that this program makes itself, to be confirmed or reverted at once; it goes back in some seconds when
  // neither happens.
  static Trial MakeGuard();

  // Throws Refusal, 400, when the member "confirm" of a request is neither true nor false nor a number of seconds;
  // nothing when no trial is wanted.
  static std::optional<Trial> Read(const JsonValue& body);

  // The same of a query's parameter "confirm", which is a number.
  static std::optional<Trial> Read(const Query& query);

  // As long as this one, under a name of its own.
  Trial MakeAnother() const { return Make(_seconds); }

  // Has the next change of the connection put on trial. Throws Refusal, 501, when the daemon can't.
  void Arm(Call& call) const;

  // What is on trial behind the change; null: it has changed nothing.
  nlohmann::json Describe(Call& call) const;

  // How it is behind the change; nothing: the daemon knows none.
  std::optional<programs::TrialState> Find(Call& call) const;

  // False when it is not pending any more.
  [[nodiscard]] bool Confirm(Call& call) const { return End(call, "confirm"); }
  [[nodiscard]] bool Revert(Call& call) const { return End(call, "revert"); }

 private:
  static Trial Make(unsigned seconds);
  bool End(Call& call, const char* word) const;

  Trial(unsigned seconds, std::string name) : _seconds(seconds), _name(std::move(name)) {}

  unsigned _seconds;
  std::string _name;
};

}  // namespace tavix::web
