#include "programs/bridge/state/StateFile.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sstream>

#include "tavix/osa/Descriptor.h"
#include "tavix/osa/Exception.h"

namespace tavix::bridge {

using core::IniFile;
using osa::Exception;

namespace {

constexpr char kCreate[] =
    "CREATE TABLE IF NOT EXISTS record (kind INTEGER NOT NULL, key BLOB NOT NULL, value BLOB NOT NULL, "
    "PRIMARY KEY (kind, key)) WITHOUT ROWID";

// A statement until it is dropped.
class Statement {
 public:
  Statement(sqlite3* database, const char* text) {
    if (sqlite3_prepare_v2(database, text, -1, &_statement, nullptr) != SQLITE_OK) _statement = nullptr;
  }
  ~Statement() { sqlite3_finalize(_statement); }

  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;

  bool IsThere() const { return _statement != nullptr; }

  // The text has to live until the statement has run.
  void Bind(int place, const std::string& bytes) {
    sqlite3_bind_blob64(_statement, place, bytes.data() == nullptr ? "" : bytes.data(), bytes.size(), SQLITE_STATIC);
  }
  void Bind(int place, int number) { sqlite3_bind_int(_statement, place, number); }

  int Step() { return sqlite3_step(_statement); }

  std::string GetBytes(int column) {
    const void* bytes = sqlite3_column_blob(_statement, column);
    const auto size = static_cast<size_t>(sqlite3_column_bytes(_statement, column));
    return bytes == nullptr ? std::string() : std::string(static_cast<const char*>(bytes), size);
  }

 private:
  sqlite3_stmt* _statement = nullptr;
};

std::string ToText(const IniFile& value) {
  std::ostringstream text;
  value.SaveToStream(text);
  return text.str();
}

}  // namespace

void StateFile::Closing::operator()(sqlite3* database) const {
  sqlite3_close(database);
}

StateFile::StateFile(const std::string& path) : _path(path) {
  _database = Open();
  _damage = FindDamage(_database.get());
  if (!_damage.empty()) {
    _database.reset();
    PutAside();
    _database = Open();
  }
  Execute("PRAGMA journal_mode=WAL");
  Execute("PRAGMA synchronous=FULL");
  Execute(kCreate);
}

StateFile::~StateFile() = default;

StateFile::Database StateFile::Open() {
  // SQLite makes its other files with the same mode.
  _file = osa::Descriptor(open(_path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, S_IRUSR | S_IWUSR));
  if (_file.Get() < 0) {
    throw Exception("Failed to open the state '%s': %s", _path.c_str(), std::strerror(errno));
  }
  if (flock(_file.Get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) throw StateInUse(_path);
  sqlite3* opened = nullptr;
  const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_PRIVATECACHE;
  const int result = sqlite3_open_v2(_path.c_str(), &opened, flags, nullptr);
  Database database(opened);
  if (result != SQLITE_OK) {
    throw Exception("Failed to open the state '%s': %s", _path.c_str(), sqlite3_errstr(result));
  }
  return database;
}

std::string StateFile::FindDamage(sqlite3* database) {
  Statement check(database, "PRAGMA quick_check(1)");
  const int result = check.IsThere() ? check.Step() : sqlite3_errcode(database);
  if (result == SQLITE_CORRUPT || result == SQLITE_NOTADB) return sqlite3_errstr(result);
  if (result != SQLITE_ROW) throw Exception("Failed to read the state '%s': %s", _path.c_str(), sqlite3_errstr(result));
  const std::string found = check.GetBytes(0);
  if (found != "ok") return found;

  // Records that are no settings text are as good as none.
  Statement all(database, "SELECT value FROM record");
  try {
    while (all.IsThere() && all.Step() == SQLITE_ROW) IniFile().LoadFromString(all.GetBytes(0));
  } catch (const Exception& error) {
    return error.what();
  }
  return std::string();
}

void StateFile::PutAside() {
  const std::string aside = _path + ".damaged";
  for (const char* ending : {"-wal", "-shm"}) unlink((_path + ending).c_str());
  if (rename(_path.c_str(), aside.c_str()) != 0) {
    throw Exception("Failed to put the damaged state '%s' aside: %s", _path.c_str(), std::strerror(errno));
  }
}

void StateFile::Execute(const char* statement) {
  if (sqlite3_exec(_database.get(), statement, nullptr, nullptr, nullptr) != SQLITE_OK) Fail("write");
}

void StateFile::Load(StateKind kind, const Take& take) {
  Statement select(_database.get(), "SELECT key, value FROM record WHERE kind = ? ORDER BY key");
  if (!select.IsThere()) Fail("read");
  select.Bind(1, static_cast<int>(kind));
  int result = select.Step();
  for (; result == SQLITE_ROW; result = select.Step()) {
    IniFile value;
    value.LoadFromString(select.GetBytes(1));
    take(select.GetBytes(0), value);
  }
  if (result != SQLITE_DONE) Fail("read");
}

void StateFile::Commit(const std::vector<StateRecord>& records) {
  Execute("BEGIN IMMEDIATE");
  try {
    for (const StateRecord& record : records) Write(record);
    Execute("COMMIT");
  } catch (...) {
    if (sqlite3_get_autocommit(_database.get()) == 0) {
      sqlite3_exec(_database.get(), "ROLLBACK", nullptr, nullptr, nullptr);
    }
    throw;
  }
}

void StateFile::Write(const StateRecord& record) {
  const bool isSet = record.value.has_value();
  Statement statement(_database.get(), isSet ? "INSERT OR REPLACE INTO record (kind, key, value) VALUES (?, ?, ?)"
                                             : "DELETE FROM record WHERE kind = ? AND key = ?");
  if (!statement.IsThere()) Fail("write");
  const std::string text = isSet ? ToText(*record.value) : std::string();
  statement.Bind(1, static_cast<int>(record.kind));
  statement.Bind(2, record.key);
  if (isSet) statement.Bind(3, text);
  if (statement.Step() != SQLITE_DONE) Fail("write");
}

void StateFile::Fail(const char* what) const {
  throw Exception("Failed to %s the state '%s': %s", what, _path.c_str(), sqlite3_errmsg(_database.get()));
}

}  // namespace tavix::bridge
