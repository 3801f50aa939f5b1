#include "tavix/osa/PipeStreamPair.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <iterator>
#include <random>
#include <sstream>
#include <string>

#include "tests/support/BackgroundCall.h"
#include "tests/support/ForeignLocale.h"

namespace {

using tavix::osa::PipeStreamPair;
using tavix::test::BackgroundCall;

std::string ReadLine(PipeStreamPair& pipe) {
  std::string line;
  std::getline(*pipe.GetIstream(), line);
  return line;
}

std::string ReadAll(PipeStreamPair& pipe) {
  std::ostringstream text;
  text << pipe.GetIstream()->rdbuf();
  return text.str();
}

TEST(PipeStreamPair, WhatIsWrittenAndFlushedIsRead) {
  PipeStreamPair pipe;
  *pipe.GetOstream() << "get delimited\n" << 42 << "\n" << std::flush;
  EXPECT_EQ(ReadLine(pipe), "get delimited");
  EXPECT_EQ(ReadLine(pipe), "42");
}

TEST(PipeStreamPair, TheEndsStayTheSame) {
  PipeStreamPair pipe;
  EXPECT_EQ(pipe.GetIstream(), pipe.GetIstream());
  EXPECT_EQ(pipe.GetOstream(), pipe.GetOstream());
}

TEST(PipeStreamPair, AReadWaitsForBytes) {
  PipeStreamPair pipe;
  std::string line;
  BackgroundCall reader([&] { line = ReadLine(pipe); });
  reader.AwaitBlocked();
  EXPECT_FALSE(reader.HasEnded());
  *pipe.GetOstream() << "late\n" << std::flush;
  reader.Join();
  EXPECT_EQ(line, "late");
}

TEST(PipeStreamPair, NothingIsReadBeforeItIsFlushed) {
  PipeStreamPair pipe;
  *pipe.GetOstream() << "kept back\n";
  pipe.ClosePipe();
  EXPECT_EQ(ReadAll(pipe), "");
}

TEST(PipeStreamPair, AWriteNeverBlocks) {
  PipeStreamPair pipe;
  const std::string block(1024 * 1024, 'x');
  for (int i = 0; i < 16; ++i) *pipe.GetOstream() << block << std::flush;
  EXPECT_TRUE(pipe.GetOstream()->good());
  pipe.ClosePipe();
  EXPECT_EQ(ReadAll(pipe).size(), 16 * block.size());
}

TEST(PipeStreamPair, CarriesEveryByte) {
  PipeStreamPair pipe;
  std::string bytes;
  for (int byte = 0; byte < 256; ++byte) bytes.push_back(static_cast<char>(byte));
  *pipe.GetOstream() << bytes << std::flush;
  for (const char byte : bytes) pipe.GetOstream()->put(byte);
  pipe.GetOstream()->flush();
  pipe.ClosePipe();
  EXPECT_EQ(ReadAll(pipe), bytes + bytes);
}

TEST(PipeStreamPair, ClosingItShowsTheReaderTheEnd) {
  PipeStreamPair pipe;
  pipe.ClosePipe();
  std::string line;
  EXPECT_FALSE(std::getline(*pipe.GetIstream(), line));
  EXPECT_TRUE(pipe.GetIstream()->eof());
}

TEST(PipeStreamPair, ClosingItKeepsWhatWasFlushedReadable) {
  PipeStreamPair pipe;
  *pipe.GetOstream() << "quit\n" << std::flush << "lost";
  pipe.ClosePipe();
  EXPECT_EQ(ReadLine(pipe), "quit");
  EXPECT_EQ(ReadAll(pipe), "");
}

TEST(PipeStreamPair, ClosingItFailsTheWriterAtOnce) {
  PipeStreamPair pipe;
  pipe.ClosePipe();
  EXPECT_FALSE(*pipe.GetOstream() << "too late");
  PipeStreamPair other;
  *other.GetOstream() << "kept back";
  other.ClosePipe();
  EXPECT_FALSE(other.GetOstream()->flush());
}

TEST(PipeStreamPair, ClosingItAgainDoesNothing) {
  PipeStreamPair pipe;
  *pipe.GetOstream() << "quit\n" << std::flush;
  pipe.ClosePipe();
  pipe.ClosePipe();
  EXPECT_EQ(ReadAll(pipe), "quit\n");
}

TEST(PipeStreamPair, TellsWhetherItWasClosed) {
  PipeStreamPair pipe;
  EXPECT_FALSE(pipe.IsClosed());
  *pipe.GetOstream() << "unread" << std::flush;
  pipe.ClosePipe();
  EXPECT_TRUE(pipe.IsClosed()) << "also while something is left to be read";
}

TEST(PipeStreamPair, ClosingItFromAnotherThreadWakesTheReader) {
  PipeStreamPair pipe;
  std::string read = "nothing yet";
  BackgroundCall reader([&] { read = ReadAll(pipe); });
  reader.AwaitBlocked();
  EXPECT_FALSE(reader.HasEnded());
  pipe.ClosePipe();
  reader.Join();
  EXPECT_EQ(read, "");
}

TEST(PipeStreamPair, ALargeWriteLeavesBeforeItIsFlushed) {
  PipeStreamPair pipe;
  const std::string block(1024 * 1024, 'x');
  *pipe.GetOstream() << block;
  std::string read(64 * 1024, '\0');
  EXPECT_TRUE(pipe.GetIstream()->read(read.data(), static_cast<std::streamsize>(read.size())));
}

TEST(PipeStreamPair, OneThreadReadsWhileAnotherWrites) {
  PipeStreamPair pipe;
  std::mt19937 random(1);
  std::string bytes(2 * 1024 * 1024, '\0');
  for (char& byte : bytes) byte = static_cast<char>(random());
  BackgroundCall writer([&] {
    for (size_t at = 0; at < bytes.size();) {
      const size_t size = std::min<size_t>(bytes.size() - at, at % 9973 + 1);
      pipe.GetOstream()->write(bytes.data() + at, static_cast<std::streamsize>(size));
      pipe.GetOstream()->flush();
      at += size;
    }
    pipe.ClosePipe();
  });
  EXPECT_TRUE(ReadAll(pipe) == bytes);
}

TEST(PipeStreamPair, ClosingItWhileBothEndsWorkEndsBoth) {
  PipeStreamPair pipe;
  BackgroundCall writer([&] {
    while (*pipe.GetOstream() << "line\n" << std::flush) continue;
  });
  BackgroundCall reader([&] {
    std::string line;
    while (std::getline(*pipe.GetIstream(), line)) EXPECT_EQ(line, "line");
  });
  pipe.ClosePipe();
  writer.Join();
  reader.Join();
  EXPECT_TRUE(pipe.GetIstream()->eof());
}

TEST(PipeStreamPair, TakesNoDescriptor) {
  const int before = dup(STDERR_FILENO);
  close(before);
  PipeStreamPair pipe;
  const int after = dup(STDERR_FILENO);
  close(after);
  EXPECT_EQ(before, after);
}

TEST(PipeStreamPair, NumbersDoNotFollowTheProcesssLocale) {
  const tavix::test::ForeignLocale foreign;
  PipeStreamPair pipe;
  *pipe.GetOstream() << 1234567 << "\n" << std::flush;
  int number = 0;
  *pipe.GetIstream() >> number;
  EXPECT_EQ(number, 1234567);
}

}  // namespace
