#pragma once

#include <memory>
#include <string>
#include <vector>

#include "programs/bridge/core/IStateStore.h"
#include "tavix/osa/Descriptor.h"
#include "tavix/osa/Exception.h"

struct sqlite3;
struct sqlite3_stmt;

namespace tavix::bridge {

// Another bridge that runs has the state. A plain value.
class StateInUse : public osa::Exception {
 public:
  explicit StateInUse(const std::string& path)
      : Exception("The state '%s' is that of another bridge, which is running", path.c_str()) {}
};

// The state of a bridge as a database of SQLite, synced at each commit.
//
// A file that is damaged, or that is no database, is renamed to PATH.damaged, in place of an earlier one, and a new one
// is
// begun: the bridge then synchronizes as if it were new. What a power cut leaves is never damaged in this sense, unless
// the disk lies about what it has written.
//
// Threads: one.
// Owns:    a lock on the file as long as it is open.
// Errors:  StateInUse; osa::Exception else, such as for a full disk or a directory that can't be written to.
class StateFile : public IStateStore {
 public:
  // path: its directory exists. The file is for the process's user alone.
  explicit StateFile(const std::string& path);
  ~StateFile() override;

  StateFile(const StateFile&) = delete;
  StateFile& operator=(const StateFile&) = delete;

  void Load(StateKind kind, const Take& take) override;
  void Commit(const std::vector<StateRecord>& records) override;

  // Why the file that was there was put aside; empty: it was not.
  const std::string& GetDamage() const { return _damage; }

 private:
  struct Closing {
    void operator()(sqlite3* database) const;
  };
  using Database = std::unique_ptr<sqlite3, Closing>;

  Database Open();
  std::string FindDamage(sqlite3* database);
  void PutAside();
  void Execute(const char* statement);
  void Write(const StateRecord& record);
  [[noreturn]] void Fail(const char* what) const;

  const std::string _path;
  std::string _damage;
  osa::Descriptor _file;  // has the lock; closed last, as SQLite's own locks go with any descriptor of the file
  Database _database;
};

}  // namespace tavix::bridge
