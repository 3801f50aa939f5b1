#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/programs/cli/process/FeaturesScript.h"

// What the command and a server with trials send each other, and what the command prints beside that.
namespace tavix::test {

using Words = std::vector<std::string>;

inline const Exchange::value_type kNoTrials{"trial\n", "data\n.\n"};
inline const std::string kAskRefusal = "info refused\nget delimited\n.\n";
inline const Exchange::value_type kNotRefused{kAskRefusal, "Refused\n-------\n\ndata\n.\n"};
inline const std::string kPending =
    "data\n[NAME]\nby=unix 0 0 812\nis [A]b=1\nnote=site 4\nrevision=118\nseconds=89\nstate=pending\n.\n";
inline const Exchange::value_type kArmed{"trial NAME\n", kPending};

inline Exchange::value_type EndedAs(const std::string& word, const std::string& state, const std::string& more = {}) {
  return {word + " NAME\n", "data\n[NAME]\nby=unix 0 0 812\n" + more + "revision=119\nstate=" + state + "\n.\n"};
}

inline Exchange::value_type Refused(const std::string& word, const std::string& reason) {
  return {word + " NAME\n", "refused\n" + reason + "\n"};
}

// A change of one setting that is on trial.
inline Exchange Set(const std::string& seconds, const Exchange& more = {}) {
  Exchange exchange{kFeatures,
                    kNoTrials,
                    {"try " + seconds + " NAME\nmerge\n[A]\nb=1\n.\nget delimited\nA\n.\n", "data\n[A]\nb=1\n.\n"},
                    kServer,
                    kNotRefused,
                    kArmed};
  exchange.insert(exchange.end(), more.begin(), more.end());
  return exchange;
}

inline void ExpectRun(const std::vector<Exchange>& connections, const Words& words, int status,
                      const std::string& errors, const std::string& output = {}) {
  ScriptedDaemon daemon(connections);
  const Outcome outcome = daemon.Run(words);
  EXPECT_EQ(daemon.WithoutName(outcome.errors), errors);
  EXPECT_EQ(daemon.WithoutName(outcome.output), output);
  EXPECT_EQ(outcome.status, status);
}

inline const std::string kAnnounced =
    "on trial as NAME: 1 setting, goes back in 90 s; keep it: tavix-settings confirm NAME\n";
inline const std::string kAnnouncedCheck = "on trial as NAME: 1 setting, goes back in 90 s unless this succeeds: ";

}  // namespace tavix::test
