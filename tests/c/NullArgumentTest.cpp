#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "tests/c/ServedClient.h"

// Each pointer of each function of the C interface, null in turn.

namespace tavix::test {

namespace {

// Replaces one of the pointers that it is shown.
class OneNull {
 public:
  explicit OneNull(int which) : _left(which) {}

  template <class T>
  T* Or(T* pointer) {
    return _left-- == 0 ? nullptr : pointer;
  }

  bool WasUsed() const { return _left < 0; }

 private:
  int _left;
};

using Call = std::function<int32_t(OneNull& n)>;

class NullArgument : public testing::Test {
 protected:
  // The call with each of its pointers null, then with none.
  static void ExpectUsage(const char* name, const Call& call) {
    bool isOneNull = true;
    for (int which = 0; isOneNull; ++which) {
      OneNull null(which);
      const std::string code = CodeOf(call(null));
      isOneNull = null.WasUsed();
      EXPECT_EQ(code == "USAGE", isOneNull) << name << ", pointer " << which << ": " << code;
    }
  }

  const char* const _names[1] = {"A"};
  const size_t _sizes[1] = {1};
  const char* const _noName[1] = {nullptr};
  const char* _bytes = nullptr;
  const char* _more = nullptr;
  size_t _size = 1;
  size_t _moreSize = 1;
  const DocumentHandle _document = Document("[A]\nA=1\n");
};

class NullArgumentOfAClient : public NullArgument {
 protected:
  const ReplacedDaemon _daemon;
  const ClientHandle _client = Open(_daemon.GetAddress());
};

}  // namespace

TEST_F(NullArgument, OfADocumentIsWrongUsage) {
  tavix_document* const d = _document.get();
  ExpectUsage("new", [&](OneNull& n) {
    tavix_document* made = nullptr;
    const int32_t code = tavix_document_new(n.Or(&made), nullptr);
    tavix_document_free(made);
    return code;
  });
  ExpectUsage("set", [&](OneNull& n) {
    return tavix_document_set(n.Or(d), n.Or("A"), 1, n.Or("A"), 1, n.Or("1"), 1, nullptr);
  });
  ExpectUsage("set_z",
              [&](OneNull& n) { return tavix_document_set_z(n.Or(d), n.Or("A"), n.Or("A"), n.Or("1"), nullptr); });
  ExpectUsage("set_group", [&](OneNull& n) { return tavix_document_set_group(n.Or(d), n.Or("A"), 1, nullptr); });
  ExpectUsage("set_group_z", [&](OneNull& n) { return tavix_document_set_group_z(n.Or(d), n.Or("A"), nullptr); });
  ExpectUsage("unset", [&](OneNull& n) { return tavix_document_unset(n.Or(d), n.Or("B"), 1, n.Or("A"), 1, nullptr); });
  ExpectUsage("unset_z", [&](OneNull& n) { return tavix_document_unset_z(n.Or(d), n.Or("B"), n.Or("A"), nullptr); });
  ExpectUsage("unset_group", [&](OneNull& n) { return tavix_document_unset_group(n.Or(d), n.Or("B"), 1, nullptr); });
  ExpectUsage("unset_group_z", [&](OneNull& n) { return tavix_document_unset_group_z(n.Or(d), n.Or("B"), nullptr); });
}

TEST_F(NullArgument, OfAReadingOfADocumentIsWrongUsage) {
  tavix_document* const d = _document.get();
  ExpectUsage("get", [&](OneNull& n) {
    return tavix_document_get(n.Or(d), n.Or("A"), 1, n.Or("A"), 1, n.Or(&_bytes), n.Or(&_size), nullptr);
  });
  ExpectUsage("get_z",
              [&](OneNull& n) { return tavix_document_get_z(n.Or(d), n.Or("A"), n.Or("A"), n.Or(&_bytes), nullptr); });
  ExpectUsage("count", [&](OneNull& n) { return tavix_document_count(n.Or(d), n.Or(&_size), nullptr); });
  ExpectUsage("count_keys",
              [&](OneNull& n) { return tavix_document_count_keys(n.Or(d), n.Or("A"), 1, n.Or(&_size), nullptr); });
  ExpectUsage("count_keys_z",
              [&](OneNull& n) { return tavix_document_count_keys_z(n.Or(d), n.Or("A"), n.Or(&_size), nullptr); });
  ExpectUsage("next_group",
              [&](OneNull& n) { return tavix_document_next_group(n.Or(d), n.Or(&_bytes), n.Or(&_size), nullptr); });
  ExpectUsage("next_group_z", [&](OneNull& n) { return tavix_document_next_group_z(n.Or(d), n.Or(&_bytes), nullptr); });
  ExpectUsage("next_key", [&](OneNull& n) {
    return tavix_document_next_key(n.Or(d), n.Or("A"), 1, n.Or(&_bytes), n.Or(&_size), n.Or(&_more), n.Or(&_moreSize),
                                   nullptr);
  });
  ExpectUsage("next_key_z", [&](OneNull& n) {
    return tavix_document_next_key_z(n.Or(d), n.Or("A"), n.Or(&_bytes), n.Or(&_more), nullptr);
  });
  ExpectUsage("parse", [&](OneNull& n) { return tavix_document_parse(n.Or(d), n.Or(""), 0, nullptr); });
  ExpectUsage("parse_z", [&](OneNull& n) { return tavix_document_parse_z(n.Or(d), n.Or(""), nullptr); });
  ExpectUsage("print", [&](OneNull& n) { return tavix_document_print(n.Or(d), n.Or(&_bytes), n.Or(&_size), nullptr); });
  ExpectUsage("print_z", [&](OneNull& n) { return tavix_document_print_z(n.Or(d), n.Or(&_bytes), nullptr); });
}

TEST_F(NullArgumentOfAClient, OfAReadingIsWrongUsage) {
  tavix_client* const c = _client.get();
  ExpectUsage("open", [&](OneNull& n) {
    tavix_client* made = nullptr;
    const std::string& address = _daemon.GetAddress();
    const int32_t code = tavix_open(n.Or(address.data()), address.size(), kPatient, n.Or(&made), nullptr);
    tavix_close(made);
    return code;
  });
  ExpectUsage("open_z", [&](OneNull& n) {
    tavix_client* made = nullptr;
    const int32_t code = tavix_open_z(n.Or(_daemon.GetAddress().c_str()), kPatient, n.Or(&made), nullptr);
    tavix_close(made);
    return code;
  });
  ExpectUsage("get", [&](OneNull& n) {
    tavix_document* made = nullptr;
    const int32_t code = tavix_get(n.Or(c), n.Or(_names), n.Or(_sizes), 1, n.Or(&made), nullptr);
    tavix_document_free(made);
    return code;
  });
  ExpectUsage("get_z", [&](OneNull& n) {
    tavix_document* made = nullptr;
    const int32_t code = tavix_get_z(n.Or(c), n.Or(_names), 1, n.Or(&made), nullptr);
    tavix_document_free(made);
    return code;
  });
  ExpectUsage("get_value", [&](OneNull& n) {
    return tavix_get_value(n.Or(c), n.Or("A"), 1, n.Or("A"), 1, n.Or(&_bytes), n.Or(&_size), nullptr);
  });
  ExpectUsage("get_value_z",
              [&](OneNull& n) { return tavix_get_value_z(n.Or(c), n.Or("A"), n.Or("A"), n.Or(&_bytes), nullptr); });
  ExpectUsage("flush", [&](OneNull& n) { return tavix_flush(n.Or(c), nullptr); });
}

TEST_F(NullArgumentOfAClient, OfAChangeIsWrongUsage) {
  tavix_client* const c = _client.get();
  const tavix_document* const d = _document.get();
  ExpectUsage("merge", [&](OneNull& n) { return tavix_merge(n.Or(c), n.Or(d), 0, nullptr); });
  ExpectUsage("overwrite",
              [&](OneNull& n) { return tavix_overwrite(n.Or(c), n.Or(_names), n.Or(_sizes), 1, n.Or(d), nullptr); });
  ExpectUsage("overwrite_z", [&](OneNull& n) { return tavix_overwrite_z(n.Or(c), n.Or(_names), 1, n.Or(d), nullptr); });
  ExpectUsage("erase", [&](OneNull& n) { return tavix_erase(n.Or(c), n.Or(_names), n.Or(_sizes), 1, nullptr); });
  ExpectUsage("erase_z", [&](OneNull& n) { return tavix_erase_z(n.Or(c), n.Or(_names), 1, nullptr); });
  ExpectUsage("restore", [&](OneNull& n) { return tavix_restore(n.Or(c), n.Or(_names), n.Or(_sizes), 1, nullptr); });
  ExpectUsage("restore_z", [&](OneNull& n) { return tavix_restore_z(n.Or(c), n.Or(_names), 1, nullptr); });
  ExpectUsage("test_and_merge", [&](OneNull& n) { return tavix_test_and_merge(n.Or(c), n.Or(d), n.Or(d), nullptr); });
  ExpectUsage("amend",
              [&](OneNull& n) { return tavix_amend(n.Or(c), n.Or(d), n.Or(d), n.Or(d), n.Or(d), n.Or(d), nullptr); });
}

TEST_F(NullArgumentOfAClient, OfAWatchIsWrongUsage) {
  const std::string& address = _daemon.GetAddress();
  ExpectUsage("watch_open", [&](OneNull& n) {
    tavix_watch* made = nullptr;
    const int32_t code = tavix_watch_open(n.Or(address.data()), address.size(), n.Or(_names), n.Or(_sizes), 1, 0,
                                          kPatient, n.Or(&made), nullptr);
    tavix_watch_close(made);
    return code;
  });
  tavix_watch* watch = nullptr;
  ExpectUsage("watch_open_z", [&](OneNull& n) {
    tavix_watch_close(watch);
    return tavix_watch_open_z(n.Or(address.c_str()), n.Or(_names), 1, 0, kPatient, n.Or(&watch), nullptr);
  });
  const WatchHandle owned(watch);
  int32_t fd = -1;
  const tavix_change* change = nullptr;
  ExpectUsage("watch_fd", [&](OneNull& n) { return tavix_watch_fd(n.Or(watch), n.Or(&fd), nullptr); });
  ExpectUsage("watch_next", [&](OneNull& n) { return tavix_watch_next(n.Or(watch), 0, n.Or(&change), nullptr); });
}

TEST_F(NullArgumentOfAClient, OfANameIsWrongUsage) {
  EXPECT_EQ(CodeOf(tavix_erase_z(_client.get(), _noName, 1, nullptr)), "USAGE");
  EXPECT_EQ(CodeOf(tavix_erase(_client.get(), _noName, _sizes, 1, nullptr)), "USAGE");
}

}  // namespace tavix::test
