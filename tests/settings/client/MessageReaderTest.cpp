#include "tavix/settings/client/MessageReader.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "tavix/core/IniFile.h"
#include "tavix/core/Logger.h"
#include "tavix/settings/client/Commands.h"
#include "tavix/settings/common/CallbackDispatcher.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/DocumentText.h"
#include "tests/support/LogOf.h"
#include "tests/support/RecordingCallback.h"

namespace {

using tavix::core::IniFile;
using tavix::core::Logger;
using tavix::settings::client::GetSettingsCommand;
using tavix::settings::client::MessageReader;
using tavix::settings::client::ReplySlot;
using tavix::settings::client::ResponseStatus;
using tavix::settings::client::SendRight;
using tavix::settings::client::SendRightLock;
using tavix::settings::common::CallbackDispatcher;
using tavix::test::BackgroundCall;
using tavix::test::Change;
using tavix::test::LogOf;
using tavix::test::RecordingCallback;
using tavix::test::TextOf;

constexpr char kStray[] = "ERROR TavixSettings: Message received without corresponding request";

// A reader of a connection over which a server has sent all that it sends, and what it reads for.
struct Reading {
  explicit Reading(const std::string& sent) : in(sent) {
    sendRight.GiveToCallers();
    dispatcher.AddCallback(&callback, std::set<std::string>{"A"});
  }

  ~Reading() { dispatcher.RemoveCallback(&callback); }

  // To the end of what was sent.
  void ReadAll() {
    for (std::string line; std::getline(in, line);) reader.HandleMessage(line);
  }

  // A call for group A that has written its request.
  void QueueGet() {
    auto command = std::make_unique<GetSettingsCommand>();
    command->_responseKeyword = "data";
    command->_result = &result;
    slot.Queue(std::move(command));
  }

  std::istringstream in;
  ReplySlot slot;
  SendRight sendRight;
  CallbackDispatcher dispatcher;
  RecordingCallback callback;
  IniFile result;
  MessageReader reader{in, {slot, sendRight, dispatcher, *Logger::GetLogger("TavixSettings")}};
};

TEST(MessageReader, ANoticeReachesItsSubscriber) {
  Reading reading("async change\nA\n.\n[A]\nx=1\n.\n");
  reading.ReadAll();
  EXPECT_THAT(reading.callback.GetChanges(), testing::ElementsAre(Change{{"A"}, "[A]\nx=1\n"}));
}

TEST(MessageReader, ANoticeThatIsCutOffReachesNobody) {
  const std::string notice = "async change\nA\n.\n[A]\nx=1\n.";
  for (const size_t size : {notice.size(), notice.size() - 1, notice.find('[')}) {
    Reading reading(notice.substr(0, size));
    reading.ReadAll();
    EXPECT_TRUE(reading.callback.GetChanges().empty()) << size;
  }
}

TEST(MessageReader, AReplyReachesTheCallThatAwaitsIt) {
  Reading reading("data\n[A]\nx=1\n.\n");
  reading.QueueGet();
  reading.ReadAll();
  const ResponseStatus status = reading.slot.Await();
  EXPECT_TRUE(status.received && status.result);
  EXPECT_EQ(TextOf(reading.result), "[A]\nx=1\n");
}

TEST(MessageReader, AReplyThatIsCutOffIsNoOutcome) {
  Reading reading("data\n[A]\nx=1\n");
  reading.QueueGet();
  reading.ReadAll();
  reading.slot.Fail(false);  // as the loss that follows does: it finds the slot empty
  EXPECT_FALSE(reading.slot.Await().received);
}

TEST(MessageReader, AReplyThatComesBeforeItsCommandIsQueuedWaitsForTheWriter) {
  Reading reading("data\n.\n");
  std::optional<SendRightLock> writer(std::in_place, reading.sendRight, 0);
  BackgroundCall worker([&] { reading.ReadAll(); });
  worker.AwaitBlocked();
  EXPECT_FALSE(worker.HasEnded());
  reading.QueueGet();
  writer.reset();
  worker.Join();
  EXPECT_TRUE(reading.slot.Await().received);
}

TEST(MessageReader, AReplyIsReadWhileAnotherCallerWrites) {
  Reading reading("data\n.\n");
  reading.QueueGet();
  const SendRightLock writer(reading.sendRight, 0);
  reading.ReadAll();
  EXPECT_TRUE(reading.slot.Await().received);
}

TEST(MessageReader, ACallerThatReadsLeavesANoticeToTheWorker) {
  for (const std::string blanks : {"", " ", "\t", "\r \v\f"}) {
    Reading reading(blanks + "async change\nA\n.\n[A]\nx=1\n.\n" + blanks + "data\n.\n");
    reading.QueueGet();
    EXPECT_FALSE(reading.reader.ReadOutcome()) << blanks;
    EXPECT_TRUE(reading.callback.GetChanges().empty()) << blanks;
    reading.ReadAll();
    EXPECT_EQ(reading.callback.GetChanges().size(), 1u) << blanks;
    EXPECT_TRUE(reading.slot.Await().received) << blanks;
  }
}

TEST(MessageReader, ACallerReadsItsReplyAndNothingBehindIt) {
  Reading reading("data\n[A]\nx=1\n.\nasync change\nA\n.\n[A]\nx=1\n.\n");
  reading.QueueGet();
  EXPECT_TRUE(reading.reader.ReadOutcome());
  EXPECT_FALSE(reading.reader.AwaitsInput());
  EXPECT_TRUE(reading.callback.GetChanges().empty());
  EXPECT_EQ(TextOf(reading.result), "[A]\nx=1\n");
}

TEST(MessageReader, ACallerThatReadsLeavesTheEndToTheWorker) {
  Reading reading("");
  reading.QueueGet();
  EXPECT_FALSE(reading.reader.ReadOutcome());
  EXPECT_FALSE(reading.reader.AwaitsInput());
  EXPECT_FALSE(reading.reader.ReadMessage());
}

TEST(MessageReader, AReplyThatNobodyAwaitsIsReported) {
  Reading reading("result\n");
  EXPECT_THAT(LogOf([&] { reading.ReadAll(); }), testing::ElementsAre(kStray));
}

TEST(MessageReader, AReplyOfTheWrongKindFailsItsCallerAndIsReadToItsEnd) {
  for (const std::string wrong : {"result\nok\n", "result\ndata\n"}) {
    Reading reading(wrong + "data\n[A]\nx=1\n.\n");
    reading.QueueGet();
    std::string line;
    std::getline(reading.in, line);
    reading.reader.HandleMessage(line);
    EXPECT_FALSE(reading.slot.Await().received) << wrong;
    reading.QueueGet();
    EXPECT_THAT(LogOf([&] { reading.ReadAll(); }), testing::ElementsAre(kStray)) << wrong;
    EXPECT_TRUE(reading.slot.Await().received) << "the next reply is the next caller's: " << wrong;
  }
}

TEST(MessageReader, ADocumentOfTheWrongKindOfReplyIsSkippedLineByLine) {
  Reading reading("data\nresult\nasync change\n.\nasync change\nA\n.\n[A]\nx=1\n.\n");
  auto command = std::make_unique<tavix::settings::client::TestAndMergeCommand>();
  command->_responseKeyword = "result";
  reading.slot.Queue(std::move(command));
  EXPECT_THAT(LogOf([&] { reading.ReadAll(); }), testing::ElementsAre(kStray)) << "repeats are counted";
  EXPECT_FALSE(reading.slot.Await().received);
  EXPECT_EQ(reading.callback.GetChanges().size(), 1u) << "the notice behind it";
}

TEST(MessageReader, AReplyThatCannotBeParsedIsReceivedWithoutAResult) {
  Reading reading("data\n[A\n.\n");
  reading.QueueGet();
  const auto messages = LogOf([&] { reading.ReadAll(); });
  EXPECT_THAT(messages, testing::ElementsAre(testing::HasSubstr("Exception handling response from server: ")));
  const ResponseStatus status = reading.slot.Await();
  EXPECT_TRUE(status.received);
  EXPECT_FALSE(status.result);
}

TEST(MessageReader, AnEmptyLineIsNoMessage) {
  Reading reading("\n");
  EXPECT_THROW(reading.ReadAll(), std::runtime_error);
}

}  // namespace
