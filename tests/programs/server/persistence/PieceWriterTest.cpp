#include "programs/server/persistence/PieceWriter.h"

#include <gtest/gtest.h>

#include "tests/support/MemoryFiles.h"

namespace tavix::test {

using daemon::PieceWriter;

TEST(PieceWriter, WritesTextsBehindOneAnotherInPieces) {
  MemoryFiles files;
  const auto file = files.Create("file");
  PieceWriter pieces(*file, 2, PieceWriter::Pace::kGentle, 4);
  pieces.Write("abc");
  pieces.Write("");
  pieces.Write("defghijk");
  pieces.Flush();
  EXPECT_EQ(files.Get("file"), std::string(2, '\0') + "abcdefghijk");
  EXPECT_EQ(files.CountOperations(), 1u + 3u);
}

TEST(PieceWriter, WritesNothingWithoutText) {
  MemoryFiles files;
  const auto file = files.Create("file");
  PieceWriter(*file, 0, PieceWriter::Pace::kFast).Flush();
  EXPECT_EQ(files.CountOperations(), 1u);
}

}  // namespace tavix::test
