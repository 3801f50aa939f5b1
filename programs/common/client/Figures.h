#pragma once

#include <map>
#include <nlohmann/json_fwd.hpp>
#include <string>

// What a server reports of itself, as JSON.
namespace tavix::programs {

// By name; docs/protocol.md lists them.
using Figures = std::map<std::string, std::string>;

// Numbers and truth values become JSON's own.
nlohmann::json FiguresToJson(const Figures& figures);

// A report of all figures as "info", with those that have names of their own beside it.
nlohmann::json ReportServer(const std::string& address, double latencyInMilliseconds, const Figures& figures);

}  // namespace tavix::programs
