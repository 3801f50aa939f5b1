#include "tavix/c/ClientHandle.h"

#include <memory>
#include <string_view>
#include <utility>

#include "tavix/c/CallResult.h"
#include "tavix/c/DocumentHandle.h"
#include "tavix/c/Names.h"

using tavix::c::CopyNames;
using tavix::c::GiveString;
using tavix::c::HandleUse;
using tavix::c::MakeOptions;
using tavix::c::NameList;
using tavix::c::Report;
using tavix::c::RunCall;
using tavix::c::SizeOf;
using tavix::core::IniFile;

namespace {

int32_t Get(tavix_client& client, const NameList& names, tavix_document** document) {
  const HandleUse use(client.owner);
  auto made = std::make_unique<tavix_document>();
  made->settings = client.store.Get(CopyNames(names));
  *document = made.release();
  return TAVIX_OK;
}

// A group whose name is a pattern, too, brings others, which do not count.
int32_t GetValue(tavix_client& client, std::string_view group, std::string_view key, const char** value, size_t* size,
                 tavix_error* error) {
  const HandleUse use(client.owner);
  const std::string name(group);
  IniFile found = client.store.Get({name});
  const auto keys = found.GetMutableGroups().find(name);
  const bool hasGroup = keys != found.end();
  const auto entry = hasGroup ? keys->second.find(std::string(key)) : IniFile::KeyMap::iterator();
  if (!hasGroup || entry == keys->second.end()) return Report(error, TAVIX_NOT_SET, "the setting is not set");
  client.value = std::move(entry->second);
  *value = client.value.c_str();
  *size = client.value.size();
  return TAVIX_OK;
}

int32_t Overwrite(tavix_client& client, const NameList& names, const IniFile& change) {
  const HandleUse use(client.owner);
  client.store.Overwrite(CopyNames(names), change);
  return TAVIX_OK;
}

int32_t Restore(tavix_client& client, const NameList& names) {
  const HandleUse use(client.owner);
  client.store.Restore(CopyNames(names));
  return TAVIX_OK;
}

int32_t ReportCondition(tavix_error* error) {
  return Report(error, TAVIX_CONDITION, "the condition did not hold: nothing was changed");
}

}  // namespace

extern "C" {

int32_t tavix_open(const char* address, size_t address_size, int32_t timeout_ms, tavix_client** client,
                   tavix_error* error) {
  if (client) *client = nullptr;
  return RunCall("tavix_open", error, {{"address", address}, {"client", client}}, [&] {
    *client = std::make_unique<tavix_client>(MakeOptions({address, address_size}, timeout_ms)).release();
    return TAVIX_OK;
  });
}

int32_t tavix_open_z(const char* address, int32_t timeout_ms, tavix_client** client, tavix_error* error) {
  return tavix_open(address, SizeOf(address), timeout_ms, client, error);
}

void tavix_close(tavix_client* client) {
  const std::unique_ptr<tavix_client> owned(client);
}

int32_t tavix_get(tavix_client* client, const char* const* names, const size_t* sizes, size_t count,
                  tavix_document** document, tavix_error* error) {
  if (document) *document = nullptr;
  return RunCall("tavix_get", error, {{"client", client}, {"names", names}, {"sizes", sizes}, {"document", document}},
                 [&] {
                   return Get(*client, {names, sizes, count}, document);
                 });
}

int32_t tavix_get_z(tavix_client* client, const char* const* names, size_t count, tavix_document** document,
                    tavix_error* error) {
  if (document) *document = nullptr;
  return RunCall("tavix_get_z", error, {{"client", client}, {"names", names}, {"document", document}}, [&] {
    return Get(*client, {names, nullptr, count}, document);
  });
}

int32_t tavix_get_value(tavix_client* client, const char* group, size_t group_size, const char* key, size_t key_size,
                        const char** value, size_t* value_size, tavix_error* error) {
  return RunCall("tavix_get_value", error,
                 {{"client", client}, {"group", group}, {"key", key}, {"value", value}, {"value_size", value_size}},
                 [&] {
                   return GetValue(*client, {group, group_size}, {key, key_size}, value, value_size, error);
                 });
}

int32_t tavix_get_value_z(tavix_client* client, const char* group, const char* key, const char** value,
                          tavix_error* error) {
  const char* bytes = nullptr;
  size_t size = 0;
  const int32_t code =
      tavix_get_value(client, group, SizeOf(group), key, SizeOf(key), value ? &bytes : nullptr, &size, error);
  return GiveString(code, bytes, size, value, error);
}

int32_t tavix_merge(tavix_client* client, const tavix_document* change, int32_t flags, tavix_error* error) {
  return RunCall("tavix_merge", error, {{"client", client}, {"change", change}}, [&] {
    tavix::c::RequireFlags(flags, TAVIX_MERGE_VOLATILE);
    const HandleUse use(client->owner);
    client->store.Merge(change->settings, (flags & TAVIX_MERGE_VOLATILE) != 0);
    return TAVIX_OK;
  });
}

int32_t tavix_overwrite(tavix_client* client, const char* const* names, const size_t* sizes, size_t count,
                        const tavix_document* change, tavix_error* error) {
  return RunCall("tavix_overwrite", error, {{"client", client}, {"names", names}, {"sizes", sizes}, {"change", change}},
                 [&] {
                   return Overwrite(*client, {names, sizes, count}, change->settings);
                 });
}

int32_t tavix_overwrite_z(tavix_client* client, const char* const* names, size_t count, const tavix_document* change,
                          tavix_error* error) {
  return RunCall("tavix_overwrite_z", error, {{"client", client}, {"names", names}, {"change", change}}, [&] {
    return Overwrite(*client, {names, nullptr, count}, change->settings);
  });
}

int32_t tavix_erase(tavix_client* client, const char* const* names, const size_t* sizes, size_t count,
                    tavix_error* error) {
  return RunCall("tavix_erase", error, {{"client", client}, {"names", names}, {"sizes", sizes}}, [&] {
    return Overwrite(*client, {names, sizes, count}, IniFile());
  });
}

int32_t tavix_erase_z(tavix_client* client, const char* const* names, size_t count, tavix_error* error) {
  return RunCall("tavix_erase_z", error, {{"client", client}, {"names", names}}, [&] {
    return Overwrite(*client, {names, nullptr, count}, IniFile());
  });
}

int32_t tavix_restore(tavix_client* client, const char* const* names, const size_t* sizes, size_t count,
                      tavix_error* error) {
  return RunCall("tavix_restore", error, {{"client", client}, {"names", names}, {"sizes", sizes}}, [&] {
    return Restore(*client, {names, sizes, count});
  });
}

int32_t tavix_restore_z(tavix_client* client, const char* const* names, size_t count, tavix_error* error) {
  return RunCall("tavix_restore_z", error, {{"client", client}, {"names", names}}, [&] {
    return Restore(*client, {names, nullptr, count});
  });
}

int32_t tavix_flush(tavix_client* client, tavix_error* error) {
  return RunCall("tavix_flush", error, {{"client", client}}, [&] {
    const HandleUse use(client->owner);
    client->store.Flush();
    return TAVIX_OK;
  });
}

int32_t tavix_test_and_merge(tavix_client* client, const tavix_document* test, const tavix_document* change,
                             tavix_error* error) {
  return RunCall("tavix_test_and_merge", error, {{"client", client}, {"test", test}, {"change", change}}, [&] {
    const HandleUse use(client->owner);
    return client->store.TestAndMerge(test->settings, change->settings) ? TAVIX_OK : ReportCondition(error);
  });
}

int32_t tavix_amend(tavix_client* client, const tavix_document* present, const tavix_document* absent,
                    const tavix_document* set, const tavix_document* unset, const tavix_document* replace,
                    tavix_error* error) {
  return RunCall("tavix_amend", error,
                 {{"client", client},
                  {"present", present},
                  {"absent", absent},
                  {"set", set},
                  {"unset", unset},
                  {"replace", replace}},
                 [&] {
                   const HandleUse use(client->owner);
                   const bool isDone = client->store.Amend(
                       {present->settings, absent->settings, set->settings, unset->settings, replace->settings});
                   return isDone ? TAVIX_OK : ReportCondition(error);
                 });
}

}  // extern "C"
