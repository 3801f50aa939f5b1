#include "programs/common/MetricsText.h"

#include <charconv>

namespace tavix::programs {

namespace {

void AppendEscaped(std::string& text, std::string_view value) {
  for (const char c : value) {
    if (c == '\n') {
      text += "\\n";
    } else {
      if (c == '"' || c == '\\') text += '\\';
      text += c;
    }
  }
}

}  // namespace

void MetricsText::Begin(std::string_view name, std::string_view help, std::string_view type) {
  _name = "tavix_settings_";
  _name += name;
  _text.append("# HELP ").append(_name).append(" ").append(help).append("\n");
  _text.append("# TYPE ").append(_name).append(" ").append(type).append("\n");
}

void MetricsText::Add(unsigned long long value, std::initializer_list<Label> labels) {
  AddSample(std::to_string(value).c_str(), labels);
}

void MetricsText::Add(double value, std::initializer_list<Label> labels) {
  char text[64];
  *std::to_chars(text, text + sizeof text - 1, value).ptr = '\0';
  AddSample(text, labels);
}

void MetricsText::AddSample(const char* value, std::initializer_list<Label> labels) {
  _text += _name;
  char separator = '{';
  for (const auto& [label, content] : labels) {
    _text.append(1, separator).append(label).append("=\"");
    AppendEscaped(_text, content);
    _text += '"';
    separator = ',';
  }
  if (labels.size() > 0) _text += '}';
  _text.append(" ").append(value).append("\n");
}

}  // namespace tavix::programs
