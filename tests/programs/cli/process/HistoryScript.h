#pragma once

#include <gtest/gtest.h>

#include <string>

#include "tests/programs/cli/process/FeaturesScript.h"

// What a server with a history answers.
namespace tavix::test {

inline constexpr char kEnd[] = "[scanned]\nmore=false\nnext=97\n.\n";

// The changes 117 and 118.
inline const std::string k117 =
    "[0000000117]\nby=unix 0 0 700\ncommand=amend\ntime=1795311800000000000\n"
    "was [Network/Eth0]mtu=1400\nwas [Network/Wlan0]enabled=true\nis [Network/Wlan0]enabled=false\n";
inline const std::string k118 =
    "[0000000118]\nby=unix 0 0 812\ncommand=merge\nis [Network/Eth0]address=10.0.0.2\nnote=site 4\n"
    "time=1795311855000000000\ntrial=t-3f9a\n";

inline void ExpectOutcome(const Outcome& outcome, int status, const std::string& output, const std::string& errors) {
  EXPECT_EQ(outcome.output, output);
  EXPECT_EQ(outcome.errors, errors);
  EXPECT_EQ(outcome.status, status);
}

}  // namespace tavix::test
