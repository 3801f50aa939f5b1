#include "tavix/c/DocumentHandle.h"

#include <memory>
#include <string_view>
#include <utility>

#include "tavix/c/CallResult.h"
#include "tavix/core/MemoryStream.h"

using tavix::c::GiveString;
using tavix::c::Report;
using tavix::c::RunCall;
using tavix::c::SizeOf;
using tavix::core::IniFile;
using tavix::core::StringOstream;

namespace {

const IniFile::KeyMap* FindGroup(const tavix_document& document, const std::string& group) {
  const auto found = document.settings.GetGroups().find(group);
  return found == document.settings.end() ? nullptr : &found->second;
}

int32_t ReportNoGroup(tavix_error* error) {
  return Report(error, TAVIX_NOT_SET, "the document has no such group");
}

int32_t ReportNoKey(tavix_error* error) {
  return Report(error, TAVIX_NOT_SET, "the document has no such setting");
}

// The first entry behind a name; behind null, the first one of all.
template <class Map>
typename Map::const_iterator FindNext(const Map& map, const char* name, size_t size) {
  return name ? map.upper_bound(std::string(name, size)) : map.begin();
}

void Give(const std::string& bytes, const char** out, size_t* size) {
  *out = bytes.c_str();
  *size = bytes.size();
}

// A new group is made whole first: without memory there is none of it.
int32_t SetValue(tavix_document& document, std::string_view group, std::string_view key, std::string_view value) {
  IniFile::GroupMap& groups = document.settings.GetMutableGroups();
  std::string name(group);
  const auto found = groups.find(name);
  if (found != groups.end()) {
    found->second.insert_or_assign(std::string(key), std::string(value));
  } else {
    IniFile::KeyMap keys;
    keys.emplace(key, value);
    groups.emplace(std::move(name), std::move(keys));
  }
  return TAVIX_OK;
}

int32_t SetGroup(tavix_document& document, std::string_view group) {
  document.settings[std::string(group)];
  return TAVIX_OK;
}

int32_t Unset(tavix_document& document, std::string_view group, std::string_view key, tavix_error* error) {
  IniFile::GroupMap& groups = document.settings.GetMutableGroups();
  const auto found = groups.find(std::string(group));
  return found != groups.end() && found->second.erase(std::string(key)) > 0 ? TAVIX_OK : ReportNoKey(error);
}

int32_t UnsetGroup(tavix_document& document, std::string_view group, tavix_error* error) {
  return document.settings.GetMutableGroups().erase(std::string(group)) > 0 ? TAVIX_OK : ReportNoGroup(error);
}

int32_t GetValue(const tavix_document& document, std::string_view group, std::string_view key, const char** value,
                 size_t* size, tavix_error* error) {
  const IniFile::KeyMap* const keys = FindGroup(document, std::string(group));
  const auto found = keys ? keys->find(std::string(key)) : IniFile::KeyMap::const_iterator();
  if (!keys || found == keys->end()) return ReportNoKey(error);
  Give(found->second, value, size);
  return TAVIX_OK;
}

int32_t CountKeys(const tavix_document& document, std::string_view group, size_t& count, tavix_error* error) {
  const IniFile::KeyMap* const keys = FindGroup(document, std::string(group));
  if (!keys) return ReportNoGroup(error);
  count = keys->size();
  return TAVIX_OK;
}

int32_t NextGroup(const tavix_document& document, const char** group, size_t* size, tavix_error* error) {
  const auto next = FindNext(document.settings.GetGroups(), *group, *size);
  if (next == document.settings.end()) return Report(error, TAVIX_NOT_SET, "the document has no further group");
  Give(next->first, group, size);
  return TAVIX_OK;
}

int32_t NextKey(const tavix_document& document, std::string_view group, const char** key, size_t* keySize,
                const char** value, size_t* valueSize, tavix_error* error) {
  const IniFile::KeyMap* const keys = FindGroup(document, std::string(group));
  if (!keys) return ReportNoGroup(error);
  const auto next = FindNext(*keys, *key, *keySize);
  if (next == keys->end()) return Report(error, TAVIX_NOT_SET, "the group has no further key");
  Give(next->first, key, keySize);
  Give(next->second, value, valueSize);
  return TAVIX_OK;
}

int32_t Parse(tavix_document& document, std::string_view text) {
  document.settings.LoadFromMemory(text, "settings text");
  return TAVIX_OK;
}

int32_t Print(tavix_document& document, const char** text, size_t* size) {
  StringOstream out;
  document.settings.SaveToStream(out);
  document.text = out.TakeText();
  Give(document.text, text, size);
  return TAVIX_OK;
}

}  // namespace

extern "C" {

int32_t tavix_document_new(tavix_document** document, tavix_error* error) {
  return RunCall("tavix_document_new", error, {{"document", document}}, [&] {
    *document = nullptr;
    *document = std::make_unique<tavix_document>().release();
    return TAVIX_OK;
  });
}

void tavix_document_free(tavix_document* document) {
  const std::unique_ptr<tavix_document> owned(document);
}

int32_t tavix_document_set(tavix_document* document, const char* group, size_t group_size, const char* key,
                           size_t key_size, const char* value, size_t value_size, tavix_error* error) {
  return RunCall("tavix_document_set", error,
                 {{"document", document}, {"group", group}, {"key", key}, {"value", value}}, [&] {
                   return SetValue(*document, {group, group_size}, {key, key_size}, {value, value_size});
                 });
}

int32_t tavix_document_set_z(tavix_document* document, const char* group, const char* key, const char* value,
                             tavix_error* error) {
  return tavix_document_set(document, group, SizeOf(group), key, SizeOf(key), value, SizeOf(value), error);
}

int32_t tavix_document_set_group(tavix_document* document, const char* group, size_t group_size, tavix_error* error) {
  return RunCall("tavix_document_set_group", error, {{"document", document}, {"group", group}}, [&] {
    return SetGroup(*document, {group, group_size});
  });
}

int32_t tavix_document_set_group_z(tavix_document* document, const char* group, tavix_error* error) {
  return tavix_document_set_group(document, group, SizeOf(group), error);
}

int32_t tavix_document_unset(tavix_document* document, const char* group, size_t group_size, const char* key,
                             size_t key_size, tavix_error* error) {
  return RunCall("tavix_document_unset", error, {{"document", document}, {"group", group}, {"key", key}}, [&] {
    return Unset(*document, {group, group_size}, {key, key_size}, error);
  });
}

int32_t tavix_document_unset_z(tavix_document* document, const char* group, const char* key, tavix_error* error) {
  return tavix_document_unset(document, group, SizeOf(group), key, SizeOf(key), error);
}

int32_t tavix_document_unset_group(tavix_document* document, const char* group, size_t group_size, tavix_error* error) {
  return RunCall("tavix_document_unset_group", error, {{"document", document}, {"group", group}}, [&] {
    return UnsetGroup(*document, {group, group_size}, error);
  });
}

int32_t tavix_document_unset_group_z(tavix_document* document, const char* group, tavix_error* error) {
  return tavix_document_unset_group(document, group, SizeOf(group), error);
}

int32_t tavix_document_get(const tavix_document* document, const char* group, size_t group_size, const char* key,
                           size_t key_size, const char** value, size_t* value_size, tavix_error* error) {
  return RunCall("tavix_document_get", error,
                 {{"document", document}, {"group", group}, {"key", key}, {"value", value}, {"value_size", value_size}},
                 [&] {
                   return GetValue(*document, {group, group_size}, {key, key_size}, value, value_size, error);
                 });
}

int32_t tavix_document_get_z(const tavix_document* document, const char* group, const char* key, const char** value,
                             tavix_error* error) {
  const char* bytes = nullptr;
  size_t size = 0;
  const int32_t code =
      tavix_document_get(document, group, SizeOf(group), key, SizeOf(key), value ? &bytes : nullptr, &size, error);
  return GiveString(code, bytes, size, value, error);
}

int32_t tavix_document_count(const tavix_document* document, size_t* groups, tavix_error* error) {
  return RunCall("tavix_document_count", error, {{"document", document}, {"groups", groups}}, [&] {
    *groups = document->settings.GetGroups().size();
    return TAVIX_OK;
  });
}

int32_t tavix_document_count_keys(const tavix_document* document, const char* group, size_t group_size, size_t* keys,
                                  tavix_error* error) {
  return RunCall("tavix_document_count_keys", error, {{"document", document}, {"group", group}, {"keys", keys}}, [&] {
    return CountKeys(*document, {group, group_size}, *keys, error);
  });
}

int32_t tavix_document_count_keys_z(const tavix_document* document, const char* group, size_t* keys,
                                    tavix_error* error) {
  return tavix_document_count_keys(document, group, SizeOf(group), keys, error);
}

int32_t tavix_document_next_group(const tavix_document* document, const char** group, size_t* group_size,
                                  tavix_error* error) {
  return RunCall("tavix_document_next_group", error,
                 {{"document", document}, {"group", group}, {"group_size", group_size}},
                 [&] { return NextGroup(*document, group, group_size, error); });
}

int32_t tavix_document_next_group_z(const tavix_document* document, const char** group, tavix_error* error) {
  const char* name = group ? *group : nullptr;
  size_t size = SizeOf(name);
  const int32_t code = tavix_document_next_group(document, group ? &name : nullptr, &size, error);
  return GiveString(code, name, size, group, error);
}

int32_t tavix_document_next_key(const tavix_document* document, const char* group, size_t group_size, const char** key,
                                size_t* key_size, const char** value, size_t* value_size, tavix_error* error) {
  return RunCall("tavix_document_next_key", error,
                 {{"document", document},
                  {"group", group},
                  {"key", key},
                  {"key_size", key_size},
                  {"value", value},
                  {"value_size", value_size}},
                 [&] {
                   return NextKey(*document, {group, group_size}, key, key_size, value, value_size, error);
                 });
}

int32_t tavix_document_next_key_z(const tavix_document* document, const char* group, const char** key,
                                  const char** value, tavix_error* error) {
  const char* name = key ? *key : nullptr;
  const char* bytes = nullptr;
  size_t nameSize = SizeOf(name);
  size_t size = 0;
  int32_t code = tavix_document_next_key(document, group, SizeOf(group), key ? &name : nullptr, &nameSize,
                                         value ? &bytes : nullptr, &size, error);
  const char* text = nullptr;
  code = GiveString(code, bytes, size, &text, error);
  code = GiveString(code, name, nameSize, key, error);
  if (code == TAVIX_OK) *value = text;
  return code;
}

int32_t tavix_document_parse(tavix_document* document, const char* text, size_t text_size, tavix_error* error) {
  return RunCall("tavix_document_parse", error, {{"document", document}, {"text", text}}, [&] {
    return Parse(*document, {text, text_size});
  });
}

int32_t tavix_document_parse_z(tavix_document* document, const char* text, tavix_error* error) {
  return tavix_document_parse(document, text, SizeOf(text), error);
}

int32_t tavix_document_print(tavix_document* document, const char** text, size_t* text_size, tavix_error* error) {
  return RunCall("tavix_document_print", error, {{"document", document}, {"text", text}, {"text_size", text_size}},
                 [&] { return Print(*document, text, text_size); });
}

int32_t tavix_document_print_z(tavix_document* document, const char** text, tavix_error* error) {
  const char* bytes = nullptr;
  size_t size = 0;
  const int32_t code = tavix_document_print(document, text ? &bytes : nullptr, &size, error);
  return GiveString(code, bytes, size, text, error);
}

}  // extern "C"
