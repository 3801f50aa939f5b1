#pragma once

#include <string>
#include <vector>

#include "programs/common/client/JsonParser.h"

namespace tavix::programs {

// Makes a document of what the parser finds. Of a name that stands twice in an object the last value counts.
//
// Threads: one.
class JsonTree : public JsonTaker {
 public:
  // Once all of the text is parsed.
  nlohmann::json TakeDocument() { return std::move(_document); }

  bool null() final { return Add(nullptr); }
  bool boolean(bool value) final { return Add(value); }
  bool number_integer(number_integer_t value) final { return Add(value); }
  bool number_unsigned(number_unsigned_t value) final { return Add(value); }
  bool number_float(number_float_t value, const std::string&) final { return Add(value); }
  bool string(std::string& text) final { return Add(std::move(text)); }
  bool start_object(size_t) final { return Open(nlohmann::json::value_t::object); }
  bool start_array(size_t) final { return Open(nlohmann::json::value_t::array); }
  bool end_object() final { return Close(); }
  bool end_array() final { return Close(); }
  bool key(std::string& name) final;

 protected:
  // A value or the name of one was found, below as many objects and lists. It may throw.
  virtual void OnFound(size_t) {}
  virtual void OnNameAgain(const std::string&) {}
  void OnBadText(const std::string&) override {}

 private:
  bool Add(nlohmann::json value);
  bool Open(nlohmann::json::value_t type);
  bool Close();

  nlohmann::json _document;
  nlohmann::json* _next = &_document;  // where the next value goes; unless a list is open, which it is added to
  std::vector<nlohmann::json*> _open;
};

}  // namespace tavix::programs
