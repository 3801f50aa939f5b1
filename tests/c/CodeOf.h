#pragma once

#include <gtest/gtest.h>

#include <cstring>
#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

#include "tavix/c/tavix-settings-c.h"

namespace tavix::test {

struct DocumentEnd {
  void operator()(tavix_document* document) const { tavix_document_free(document); }
};
struct ClientEnd {
  void operator()(tavix_client* client) const { tavix_close(client); }
};
struct WatchEnd {
  void operator()(tavix_watch* watch) const { tavix_watch_close(watch); }
};
using DocumentHandle = std::unique_ptr<tavix_document, DocumentEnd>;
using ClientHandle = std::unique_ptr<tavix_client, ClientEnd>;
using WatchHandle = std::unique_ptr<tavix_watch, WatchEnd>;

// A code of the C interface by its name, for failures that can be read.
inline std::string CodeOf(int32_t code) {
  return tavix_code_name(code);
}

// A document of settings text. Throws nothing: a text that does not parse fails the test.
inline DocumentHandle Document(const std::string& text) {
  tavix_document* document = nullptr;
  EXPECT_EQ(CodeOf(tavix_document_new(&document, nullptr)), "OK");
  EXPECT_EQ(CodeOf(tavix_document_parse(document, text.data(), text.size(), nullptr)), "OK") << text;
  return DocumentHandle(document);
}

inline std::string TextOf(const DocumentHandle& document) {
  const char* text = nullptr;
  size_t size = 0;
  EXPECT_EQ(CodeOf(tavix_document_print(document.get(), &text, &size, nullptr)), "OK");
  return text ? std::string(text, size) : std::string();
}

}  // namespace tavix::test
