#include "tavix/osa/Exception.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <type_traits>

#include "tavix/osa/LockException.h"

namespace {

using tavix::osa::Exception;
using tavix::osa::LockException;

TEST(Exception, BuildsItsTextAsPrintfDoes) {
  EXPECT_STREQ(Exception("%s was NULL", "client").what(), "client was NULL");
  EXPECT_STREQ(Exception("port %u, %5.2f %%", 7211u, 1.5).what(), "port 7211,  1.50 %");
  EXPECT_STREQ(Exception("Invalid or unsupported operation mode").what(), "Invalid or unsupported operation mode");
  EXPECT_STREQ(Exception("%s", "").what(), "");
}

TEST(Exception, LongTextsAreNotCut) {
  const std::string text(100 * 1000, 'x');
  EXPECT_EQ(Exception("%s!", text.c_str()).what(), text + "!");
}

TEST(Exception, ArgumentsAreNotReadAsFormats) {
  EXPECT_STREQ(Exception("%s", "100%s %n").what(), "100%s %n");
}

TEST(Exception, IsAStandardException) {
  EXPECT_THAT([] { throw Exception("no %s", "way"); }, testing::ThrowsMessage<std::exception>("no way"));
}

TEST(Exception, CopiesKeepTheText) {
  Exception copy("second");
  {
    const Exception original("%s", std::string(1000, 'x').c_str());
    copy = original;
  }
  EXPECT_EQ(copy.what(), std::string(1000, 'x'));
}

TEST(LockException, IsAnExceptionWithACode) {
  const LockException exception("Lock Timeout", LockException::kTimeout);
  EXPECT_STREQ(exception.what(), "Lock Timeout");
  EXPECT_EQ(exception.GetError(), LockException::kTimeout);
  EXPECT_THAT([&] { throw exception; }, testing::Throws<Exception>());
}

TEST(LockException, TimeoutIsErrorOne) {
  EXPECT_EQ(static_cast<int>(LockException::kTimeout), 1);
}

TEST(LockException, ItsTextIsNoFormat) {
  EXPECT_STREQ(LockException("mutex '%s%n'", LockException::kTimeout).what(), "mutex '%s%n'");
}

}  // namespace
