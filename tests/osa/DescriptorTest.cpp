#include "tavix/osa/Descriptor.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <utility>

namespace tavix::test {

namespace {

int OpenNull() {
  return open("/dev/null", O_RDONLY | O_CLOEXEC);
}

bool IsOpen(int descriptor) {
  return fcntl(descriptor, F_GETFD) >= 0;
}

}  // namespace

TEST(Descriptor, IsClosedAtTheEndOfItsScope) {
  const int number = OpenNull();
  {
    const osa::Descriptor owner(number);
    EXPECT_TRUE(IsOpen(owner.Get()));
  }
  EXPECT_FALSE(IsOpen(number));
}

TEST(Descriptor, NoneIsFalse) {
  EXPECT_FALSE(osa::Descriptor());
  EXPECT_FALSE(osa::Descriptor(-1));
  EXPECT_TRUE(osa::Descriptor(OpenNull()));
}

TEST(Descriptor, MoveLeavesNone) {
  osa::Descriptor from(OpenNull());
  const int number = from.Get();
  const osa::Descriptor to(std::move(from));
  EXPECT_EQ(from.Get(), -1);
  EXPECT_EQ(to.Get(), number);
  EXPECT_TRUE(IsOpen(number));
}

TEST(Descriptor, AssignmentClosesTheOneBefore) {
  osa::Descriptor owner(OpenNull());
  const int before = owner.Get();
  osa::Descriptor other(OpenNull());
  const int number = other.Get();
  owner = std::move(other);
  EXPECT_FALSE(IsOpen(before));
  EXPECT_EQ(owner.Get(), number);
}

TEST(Descriptor, ReleasedOneStaysOpen) {
  osa::Descriptor owner(OpenNull());
  const osa::Descriptor other(owner.Release());
  EXPECT_FALSE(owner);
  EXPECT_TRUE(IsOpen(other.Get()));
}

TEST(Descriptor, ResetClosesIt) {
  osa::Descriptor owner(OpenNull());
  const int number = owner.Get();
  owner.Reset();
  EXPECT_FALSE(owner);
  EXPECT_FALSE(IsOpen(number));
}

}  // namespace tavix::test
