#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>

#include "programs/web/interface/AnswerSize.h"

namespace tavix::web {

// The text of a list or an object of JSON that grows part by part, so that no document of all of it is in memory.
//
// Threads: one.
// Errors:  those of AnswerSize.
class JsonParts {
 public:
  // size: outlives this. begin: the text up to the list or object, with its bracket.
  JsonParts(AnswerSize& size, std::string begin) : _size(size), _text(std::move(begin)) {}

  void Add(const nlohmann::json& item);
  void Add(const std::string& name, const nlohmann::json& value);

  size_t GetSize() const { return _text.size(); }

  // The text with its end, which closes the bracket.
  std::string Finish(const std::string& end);

 private:
  void Append(const std::string& part);

  AnswerSize& _size;
  std::string _text;
  bool _isFirst = true;
};

}  // namespace tavix::web
