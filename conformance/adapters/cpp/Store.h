#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "conformance/adapters/cpp/EventWriter.h"
#include "tavix/core/IniFile.h"
#include "tavix/settings/Amendment.h"

namespace tavix::conformance {

// A failed call, with one of the codes of the adapters' protocol (docs/clients.md).
class StoreError : public std::runtime_error {
 public:
  StoreError(std::string code, const std::string& text) : std::runtime_error(text), _code(std::move(code)) {}

  const std::string& GetCode() const { return _code; }

 private:
  std::string _code;
};

// One of our ways to a store, as the adapter drives it.
//
// Threads: one.
// Errors:  StoreError, or what the way itself throws: Adapter.cpp knows these.
class Store {
 public:
  using Groups = std::set<std::string>;
  using Milliseconds = std::chrono::milliseconds;

  virtual ~Store() = default;

  virtual core::IniFile Get(const Groups& names) = 0;
  virtual void Merge(const core::IniFile& change, bool isVolatile) = 0;
  virtual bool TestAndMerge(const core::IniFile& test, const core::IniFile& change) = 0;
  virtual void Overwrite(const Groups& names, const core::IniFile& change) = 0;
  virtual void Restore(const Groups& names) = 0;
  virtual void Flush() = 0;
  virtual bool Amend(const settings::Amendment& amendment) = 0;

  // Begins a watch of that number; its changes go to the writer.
  virtual void Watch(int number, const Groups& names, bool isInitial) = 0;
  virtual void Unwatch(int number) = 0;

  // What is to be waited for by poll(2) with POLLIN, and for how long at most; nothing: without limit.
  virtual std::vector<int> GetDescriptors() = 0;
  virtual std::optional<Milliseconds> GetDelay() { return std::nullopt; }

  // Takes what has come, and reports changes.
  virtual void Advance() = 0;
};

// address: HOST:PORT or unix:PATH. Each connects now or with its first call.
std::unique_ptr<Store> MakeSingleThreadedStore(const std::string& address);
std::unique_ptr<Store> MakeMultiThreadedStore(const std::string& address, EventWriter& writer);
std::unique_ptr<Store> MakeProtocolStore(const std::string& address, Store::Milliseconds timeout, EventWriter& writer);
std::unique_ptr<Store> MakeCStore(const std::string& address, Store::Milliseconds timeout, EventWriter& writer);

}  // namespace tavix::conformance
