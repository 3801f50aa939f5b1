#pragma once

#include <cctype>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>

namespace tavix::test {

// Reads Prometheus' text format, version 0.0.4, as strictly as its description puts it: every family has its help and
// its type before its samples, stands in one place, and no sample comes twice.
//
// Errors: std::runtime_error with the line that is none.
class PrometheusText {
 public:
  explicit PrometheusText(const std::string& text) {
    if (text.empty() || text.back() != '\n') throw std::runtime_error("the last line is cut off: " + text);
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) ReadLine(line);
  }

  // series: "name" or "name{label="value"}". A series that is missing throws.
  double Get(const std::string& series) const { return _samples.at("tavix_settings_" + series); }

  const std::map<std::string, double>& GetSamples() const { return _samples; }
  const std::map<std::string, std::string>& GetTypes() const { return _types; }

 private:
  void ReadLine(const std::string& line) {
    static const std::regex help("# HELP ([a-zA-Z_:][a-zA-Z0-9_:]*) .+");
    static const std::regex type("# TYPE ([a-zA-Z_:][a-zA-Z0-9_:]*) (counter|gauge)");
    static const std::regex sample(
        "(([a-zA-Z_:][a-zA-Z0-9_:]*)(\\{([a-zA-Z_][a-zA-Z0-9_]*=\"([^\"\\\\]|\\\\[\\\\n\"])*\",?)+\\})?) "
        "(-?[0-9]+(\\.[0-9]+)?(e[-+][0-9]+)?)");
    std::smatch parts;
    if (std::regex_match(line, parts, help)) {
      if (!_helps.insert(parts[1]).second) throw std::runtime_error("a second help: " + line);
    } else if (std::regex_match(line, parts, type)) {
      _family = parts[1];
      if (_helps.count(_family) == 0 || !_types.emplace(_family, parts[2]).second)
        throw std::runtime_error("no help, or a second type: " + line);
    } else if (std::regex_match(line, parts, sample) && parts[2] == _family) {
      if (!_samples.emplace(parts[1], std::stod(parts[6])).second) throw std::runtime_error("a second time: " + line);
    } else {
      throw std::runtime_error("no line of its family: " + line);
    }
  }

  std::string _family;
  std::set<std::string> _helps;
  std::map<std::string, std::string> _types;
  std::map<std::string, double> _samples;
};

}  // namespace tavix::test
