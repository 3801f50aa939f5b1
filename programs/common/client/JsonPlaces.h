#pragma once

#include <string>

#include "tavix/core/IniFile.h"

// JSON documents of somebody else, of which only some values are looked at.
namespace tavix::programs {

// The values of any JSON document by their places, such as "groups[2].keys[0].here"; the document's own is "". Each is
// a byte for its kind and a text: that of a string or a number, or how many items a list has.
using JsonPlaces = core::IniFile::KeyMap;
constexpr char kJsonText = 's';
constexpr char kJsonNumber = 'n';  // whole, and not below 0
constexpr char kJsonOther = 'x';   // any other number
constexpr char kJsonTrue = 't';
constexpr char kJsonFalse = 'f';
constexpr char kJsonNull = '0';
constexpr char kJsonObject = '{';
constexpr char kJsonList = '[';

// Of what has the same place the last one counts. Throws Failure, kExitBadInput, with "source", for what is no
// document, nests deeper than 8 levels, has more than a million values, or a name of more than 256 bytes.
JsonPlaces ListJsonPlaces(const std::string& text, const std::string& source);

// A document as somebody else wrote it, but for control characters that JSON lets stand as they are.
std::string WithoutControls(const std::string& text);

}  // namespace tavix::programs
