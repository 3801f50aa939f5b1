#include "tavix/core/DescriptorWriter.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "tavix/osa/Descriptor.h"
#include "tests/support/TemporaryDirectory.h"

namespace {

using tavix::osa::Descriptor;
using tavix::test::TemporaryDirectory;
using Writer = tavix::core::DescriptorWriter;

const std::string kLine = std::string(1000, 'x') + "\n";

// Writes lines until the other end takes no more; how many were taken.
size_t WriteUntilRefused(Writer& writer) {
  size_t taken = 0;
  while (writer.Write(kLine)) ++taken;
  return taken;
}

std::string ReadAll(int descriptor) {
  std::string text;
  char part[4096];
  fcntl(descriptor, F_SETFL, O_NONBLOCK);
  for (ssize_t count; (count = read(descriptor, part, sizeof part)) > 0;) text.append(part, static_cast<size_t>(count));
  return text;
}

// Whole lines, as many as that, and nothing else.
void ExpectLines(const std::string& text, size_t count) {
  EXPECT_EQ(text.size(), count * kLine.size());
  for (size_t at = 0; at < text.size(); at += kLine.size()) ASSERT_EQ(text.substr(at, kLine.size()), kLine) << at;
}

struct Ends {
  explicit Ends(const int (&ends)[2]) : reading(ends[0]), writing(ends[1]) {}

  Descriptor reading;
  Descriptor writing;
};

Ends MakePipe() {
  int ends[2];
  EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
  return Ends(ends);
}

Ends MakeSockets() {
  int ends[2];
  EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
  return Ends(ends);
}

Ends MakeTerminal() {
  int ends[2];
  termios plain{};
  plain.c_cflag = CS8 | CREAD;
  EXPECT_EQ(openpty(&ends[0], &ends[1], nullptr, &plain, nullptr), 0);
  return Ends(ends);
}

void ExpectNeverToWait(const Ends& ends) {
  Writer writer(ends.writing.Get());
  const size_t taken = WriteUntilRefused(writer);
  EXPECT_GT(taken, 0u);
  const std::string first = ReadAll(ends.reading.Get());
  const bool takesAgain = writer.Write(kLine);
  EXPECT_TRUE(takesAgain);
  ExpectLines(first + ReadAll(ends.reading.Get()), taken + 1);
  EXPECT_EQ(fcntl(ends.writing.Get(), F_GETFL) & O_NONBLOCK, 0) << "is for those who share it to choose";
}

TEST(DescriptorWriter, NeverWaitsForAPipeThatNobodyReads) {
  ExpectNeverToWait(MakePipe());
}

TEST(DescriptorWriter, NeverWaitsForASocketThatNobodyReads) {
  ExpectNeverToWait(MakeSockets());
}

TEST(DescriptorWriter, NeverWaitsForATerminalThatNobodyReads) {
  ExpectNeverToWait(MakeTerminal());
}

TEST(DescriptorWriter, PipeThatHasNoReaderTakesNothingAndRaisesNoSignal) {
  Ends ends = MakePipe();
  ends.reading.Reset();
  Writer writer(ends.writing.Get());
  EXPECT_FALSE(writer.Write(kLine));
}

TEST(DescriptorWriter, SocketThatHasNoReaderTakesNothingAndRaisesNoSignal) {
  Ends ends = MakeSockets();
  ends.reading.Reset();
  Writer writer(ends.writing.Get());
  EXPECT_FALSE(writer.Write(kLine));
}

TEST(DescriptorWriter, WritesToWhateverStandsInTheDescriptorsPlaceThen) {
  const TemporaryDirectory directory;
  const Descriptor file(open(directory.Write("file", "before\n").c_str(), O_WRONLY | O_APPEND | O_CLOEXEC));
  const Ends ends = MakePipe();
  Writer writer(ends.writing.Get());
  EXPECT_TRUE(writer.Write("to the pipe\n"));
  ASSERT_GE(dup2(file.Get(), ends.writing.Get()), 0);
  EXPECT_TRUE(writer.Write("to the file\n"));
  EXPECT_EQ(ReadAll(ends.reading.Get()), "to the pipe\n");
  EXPECT_EQ(directory.Read("file"), "before\nto the file\n");
}

TEST(DescriptorWriter, ClosedDescriptorTakesNothing) {
  Writer writer(-1);
  EXPECT_FALSE(writer.Write(kLine));
}

}  // namespace
