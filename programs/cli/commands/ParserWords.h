#pragma once

#include <string>

namespace tavix::programs::cli {

// The parser gives some words a meaning of its own: "[a,b]" is a list, "{}" an empty one, "-5" an option. Values are
// bytes, so that these words are marked on their way through it.
constexpr char kWordMark = '\x01';

// Marks a word, or the value behind "--name=", if the parser would take it for its own.
std::string MarkWord(const std::string& word);

// Marks a word whatever it looks like.
std::string MarkAnyWord(const std::string& word);

// Takes the mark from the front, if there is one.
std::string UnmarkWord(const std::string& word);

// A time as a number of seconds: takes the unit from "2s", and makes "0.500000" of "500ms". Other texts stay.
std::string WithoutUnit(const std::string& time);

}  // namespace tavix::programs::cli
