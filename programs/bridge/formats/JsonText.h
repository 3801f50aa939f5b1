#pragma once

#include <cstddef>
#include <nlohmann/json_fwd.hpp>
#include <string>

// JSON as documents from outside have it, which may hold anything.
namespace tavix::bridge {

// Throws BadDocument for a text of more than "maxBytes", one that is not JSON, one that nests deeper than any document
// does, and an object with a name that stands twice.
nlohmann::json ParseJson(const std::string& text, size_t maxBytes);

// A member of a document whose "format" is 1; throws BadDocument when it is missing or of another type.
const nlohmann::json& GetObject(const nlohmann::json& document, const char* name);
std::string GetText(const nlohmann::json& document, const char* name);
unsigned long long GetNumber(const nlohmann::json& document, const char* name);

// Throws BadDocument unless the document is an object whose format is 1.
void RequireFormat(const nlohmann::json& document);

}  // namespace tavix::bridge
