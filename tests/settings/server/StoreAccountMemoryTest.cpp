// Sanitizers have allocators of their own.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)

#include <gtest/gtest.h>
#include <malloc.h>

#include <functional>
#include <string>

#include "tavix/core/IniFile.h"
#include "tavix/settings/server/StoreAccount.h"

namespace tavix::test {

using core::IniFile;
using settings::server::StoreAccount;

namespace {

// By what factor the account is off for a document.
double FindFactor(const std::function<void(IniFile&)>& fill) {
  const size_t before = mallinfo2().uordblks + mallinfo2().hblkhd;
  IniFile document;
  fill(document);
  const size_t after = mallinfo2().uordblks + mallinfo2().hblkhd;
  return static_cast<double>(StoreAccount::Count(document)) / static_cast<double>(after - before);
}

void FillWithEmptyGroups(IniFile& document) {
  for (int i = 0; i < 50'000; ++i) document[std::to_string(i)];
}

void FillWithSmallGroups(IniFile& document) {
  for (int i = 0; i < 10'000; ++i) {
    for (const char* key : {"enabled", "address", "a key of thirty characters here"})
      document.SetValue("Network/Interface " + std::to_string(i), key, "a value of the usual length, more or less");
  }
}

void FillWithLargeValues(IniFile& document) {
  for (int i = 0; i < 50; ++i) document.SetValue("G" + std::to_string(i), "k", std::string(200'000, 'v'));
}

}  // namespace

TEST(StoreAccount, IsAboutWhatTheAllocatorHasGiven) {
  for (const auto& fill : {FillWithEmptyGroups, FillWithSmallGroups, FillWithLargeValues}) {
    const double factor = FindFactor(fill);
    EXPECT_GT(factor, 1 / 1.5);
    EXPECT_LT(factor, 1.5);
  }
}

}  // namespace tavix::test

#endif
