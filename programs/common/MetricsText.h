#pragma once

#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>

namespace tavix::programs {

// Builds figures in Prometheus' text format, version 0.0.4: families, each with its help, its type and its samples.
//
// Threads: one.
class MetricsText {
 public:
  using Label = std::pair<std::string_view, std::string_view>;

  // Begins a family; its samples follow. name: without the prefix that all have; of a counter, it ends with "_total".
  void BeginCounter(std::string_view name, std::string_view help) { Begin(name, help, "counter"); }
  void BeginGauge(std::string_view name, std::string_view help) { Begin(name, help, "gauge"); }

  // One sample of the family that was begun last.
  void Add(unsigned long long value, std::initializer_list<Label> labels = {});
  void Add(double value, std::initializer_list<Label> labels = {});

  const std::string& GetText() const { return _text; }

 private:
  void Begin(std::string_view name, std::string_view help, std::string_view type);
  void AddSample(const char* value, std::initializer_list<Label> labels);

  std::string _name;
  std::string _text;
};

}  // namespace tavix::programs
