#pragma once

#include <chrono>
#include <set>
#include <string>

// How the bridges of this device are asked. Each has a socket, RUNTIME/bridge-NAME.sock: a request is one line, and the
// answer is what comes until the bridge hangs up, one JSON document with a line feed behind it.
namespace tavix::programs::cli {

// The folder of the sockets when nobody names another one.
constexpr char kBridgeRuntime[] = "/run/tavix-settings/bridges";

// The names of the bridges that have a socket in the folder, in ascending order; one that was killed leaves its socket
// behind. A folder that does not exist has none. Throws Failure, kExitNoServer, when it can't be read.
std::set<std::string> FindBridges(const std::string& runtime);

// Sends a request and returns the answer, 16 MiB at most. request: without a line feed. timeout: how long the bridge
// may keep silent; all of the answer may take six times as long. Throws Failure: kExitUsage for a name that no bridge
// has, kExitNoServer when the bridge does not run, lets nobody in, keeps silent, is too slow or hangs up, kExitBadInput
// when the answer is longer.
std::string AskBridge(const std::string& runtime, const std::string& name, const std::string& request,
                      std::chrono::milliseconds timeout);

}  // namespace tavix::programs::cli
