// The C interface, its watches by their descriptors.
#include <map>
#include <type_traits>

#include "conformance/adapters/cpp/Store.h"
#include "tavix/c/tavix-settings-c.h"

namespace tavix::conformance {

namespace {

using core::IniFile;

// Throws what a call has returned.
void Require(int32_t code, const tavix_error& error) {
  if (code != TAVIX_OK) throw StoreError(tavix_code_name(code), error.text);
}

template <typename T, void (*free)(T*)>
struct Free {
  void operator()(T* handle) const { free(handle); }
};

using DocumentHandle = std::unique_ptr<tavix_document, Free<tavix_document, tavix_document_free>>;
using ClientHandle = std::unique_ptr<tavix_client, Free<tavix_client, tavix_close>>;
using WatchHandle = std::unique_ptr<tavix_watch, Free<tavix_watch, tavix_watch_close>>;

DocumentHandle ToHandle(const IniFile& document) {
  tavix_error error{};
  tavix_document* made = nullptr;
  Require(tavix_document_new(&made, &error), error);
  DocumentHandle handle(made);
  for (const auto& [group, keys] : document) {
    Require(tavix_document_set_group(made, group.data(), group.size(), &error), error);
    for (const auto& [key, value] : keys)
      Require(tavix_document_set(made, group.data(), group.size(), key.data(), key.size(), value.data(), value.size(),
                                 &error),
              error);
  }
  return handle;
}

IniFile FromHandle(const tavix_document* document) {
  IniFile settings;
  tavix_error error{};
  const char* group = nullptr;
  size_t groupSize = 0;
  while (tavix_document_next_group(document, &group, &groupSize, &error) == TAVIX_OK) {
    const std::string name(group, groupSize);
    IniFile::KeyMap& keys = settings[name];
    const char* key = nullptr;
    const char* value = nullptr;
    size_t keySize = 0;
    size_t valueSize = 0;
    while (tavix_document_next_key(document, name.data(), name.size(), &key, &keySize, &value, &valueSize, &error) ==
           TAVIX_OK)
      keys[std::string(key, keySize)] = std::string(value, valueSize);
  }
  return settings;
}

// Names as the interface takes them.
class NameList {
 public:
  explicit NameList(const Store::Groups& names) {
    for (const std::string& name : names) {
      _names.push_back(name.data());
      _sizes.push_back(name.size());
    }
    _names.push_back("");
    _sizes.push_back(0);
  }

  // Not null, be it empty.
  const char* const* GetNames() const { return _names.data(); }
  const size_t* GetSizes() const { return _sizes.data(); }
  size_t GetCount() const { return _names.size() - 1; }

 private:
  std::vector<const char*> _names;
  std::vector<size_t> _sizes;
};

class CStore : public Store {
 public:
  CStore(const std::string& address, Milliseconds timeout, EventWriter& writer)
      : _address(address), _timeout(static_cast<int32_t>(timeout.count())), _writer(writer) {
    tavix_error error{};
    tavix_client* client = nullptr;
    Require(tavix_open(address.data(), address.size(), _timeout, &client, &error), error);
    _client.reset(client);
  }

  IniFile Get(const Groups& names) override {
    const NameList list(names);
    tavix_error error{};
    tavix_document* document = nullptr;
    Require(tavix_get(_client.get(), list.GetNames(), list.GetSizes(), list.GetCount(), &document, &error), error);
    return FromHandle(DocumentHandle(document).get());
  }

  void Merge(const IniFile& change, bool isVolatile) override {
    tavix_error error{};
    Require(tavix_merge(_client.get(), ToHandle(change).get(), isVolatile ? TAVIX_MERGE_VOLATILE : 0, &error), error);
  }

  bool TestAndMerge(const IniFile& test, const IniFile& change) override {
    tavix_error error{};
    const int32_t code = tavix_test_and_merge(_client.get(), ToHandle(test).get(), ToHandle(change).get(), &error);
    if (code != TAVIX_CONDITION) Require(code, error);
    return code == TAVIX_OK;
  }

  bool Amend(const settings::Amendment& amendment) override {
    tavix_error error{};
    const int32_t code = tavix_amend(_client.get(), ToHandle(amendment.present).get(), ToHandle(amendment.absent).get(),
                                     ToHandle(amendment.set).get(), ToHandle(amendment.unset).get(),
                                     ToHandle(amendment.replace).get(), &error);
    if (code != TAVIX_CONDITION) Require(code, error);
    return code == TAVIX_OK;
  }

  void Overwrite(const Groups& names, const IniFile& change) override {
    const NameList list(names);
    tavix_error error{};
    Require(tavix_overwrite(_client.get(), list.GetNames(), list.GetSizes(), list.GetCount(), ToHandle(change).get(),
                            &error),
            error);
  }

  void Restore(const Groups& names) override {
    const NameList list(names);
    tavix_error error{};
    Require(tavix_restore(_client.get(), list.GetNames(), list.GetSizes(), list.GetCount(), &error), error);
  }

  void Flush() override {
    tavix_error error{};
    Require(tavix_flush(_client.get(), &error), error);
  }

  void Watch(int number, const Groups& names, bool isInitial) override {
    const NameList list(names);
    tavix_error error{};
    tavix_watch* watch = nullptr;
    Require(tavix_watch_open(_address.data(), _address.size(), list.GetNames(), list.GetSizes(), list.GetCount(),
                             isInitial ? TAVIX_WATCH_INITIAL : 0, _timeout, &watch, &error),
            error);
    _watches[number].reset(watch);
  }

  void Unwatch(int number) override { _watches.erase(number); }

  std::vector<int> GetDescriptors() override {
    std::vector<int> descriptors;
    for (const auto& [number, watch] : _watches) {
      tavix_error error{};
      int32_t descriptor = -1;
      Require(tavix_watch_fd(watch.get(), &descriptor, &error), error);
      descriptors.push_back(descriptor);
    }
    return descriptors;
  }

  void Advance() override {
    for (const auto& [number, watch] : _watches) {
      const tavix_change* change = nullptr;
      tavix_error error{};
      while (tavix_watch_next(watch.get(), 0, &change, &error) == TAVIX_OK) Report(number, *change);
    }
  }

 private:
  static std::optional<std::string> ToText(const char* bytes, size_t size) {
    return bytes ? std::optional<std::string>(std::in_place, bytes, size) : std::nullopt;
  }

  void Report(int number, const tavix_change& change) const {
    if (change.kind == TAVIX_CHANGE_RESYNC) return _writer.WriteResync(number);
    _writer.WriteChange(number, {std::string(change.group, change.group_size), ToText(change.key, change.key_size),
                                 ToText(change.old_value, change.old_value_size),
                                 ToText(change.new_value, change.new_value_size), change.gone == 1});
  }

  const std::string _address;
  const int32_t _timeout;
  EventWriter& _writer;
  ClientHandle _client;
  std::map<int, WatchHandle> _watches;
};

}  // namespace

std::unique_ptr<Store> MakeCStore(const std::string& address, Store::Milliseconds timeout, EventWriter& writer) {
  return std::make_unique<CStore>(address, timeout, writer);
}

}  // namespace tavix::conformance
