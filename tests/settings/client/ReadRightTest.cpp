#include "tavix/settings/client/ReadRight.h"

#include <gtest/gtest.h>

#include <string>

#include "tavix/osa/PipeStreamPair.h"
#include "tests/support/BackgroundCall.h"

namespace {

using tavix::osa::PipeStreamPair;
using tavix::settings::client::ReadRight;
using tavix::settings::client::ReadTurn;
using tavix::test::BackgroundCall;

// A worker that sleeps between two messages, and has the right again when it wakes.
struct SleepingWorker {
  SleepingWorker() { worker.AwaitBlocked(); }
  ~SleepingWorker() { pipe.ClosePipe(); }

  void Send() { *pipe.GetOstream() << "line\n" << std::flush; }

  void Read() {
    std::string line;
    EXPECT_TRUE(std::getline(*pipe.GetIstream(), line));
  }

  bool IsAsleep() {
    worker.AwaitBlocked();
    return !worker.HasEnded();
  }

  PipeStreamPair pipe;
  ReadRight right;
  bool isInOrder = false;  // once it is awake
  BackgroundCall worker{[this] { isInOrder = right.AwaitInput(pipe.GetWatch()); }};
};

TEST(ReadRight, IsTheWorkersUntilItOffersIt) {
  ReadRight right;
  ReadTurn turn(right);
  turn.Ask();
  EXPECT_FALSE(turn.Begin());
}

TEST(ReadRight, ThatACallerAsksForInVainWasAskedForOnce) {
  ReadRight right;
  EXPECT_FALSE(right.WasAskedFor());
  ReadTurn turn(right);
  turn.Ask();
  EXPECT_TRUE(right.WasAskedFor());
  EXPECT_FALSE(right.WasAskedFor());
}

TEST(ReadRight, OfAWorkerThatNobodyAsksIsItsOwnWhenInputComes) {
  SleepingWorker sleeping;
  sleeping.Send();
  sleeping.worker.Join();
  ReadTurn turn(sleeping.right);
  turn.Ask();
  EXPECT_FALSE(turn.Begin());
}

TEST(ReadRight, InputForACallerWakesNoWorkerAndLaterInputDoes) {
  SleepingWorker sleeping;
  for (int i = 0; i < 3; ++i) {
    ReadTurn turn(sleeping.right);
    turn.Ask();
    sleeping.Send();
    EXPECT_TRUE(turn.Begin());
    sleeping.Read();
    turn.GiveBack();
    EXPECT_TRUE(sleeping.IsAsleep());
  }
  sleeping.Send();
  sleeping.worker.Join();
}

TEST(ReadRight, InputBehindWhatACallerReadWakesTheWorker) {
  SleepingWorker sleeping;
  ReadTurn turn(sleeping.right);
  turn.Ask();
  sleeping.Send();
  EXPECT_TRUE(turn.Begin());
  sleeping.Read();
  sleeping.Send();
  EXPECT_TRUE(sleeping.IsAsleep());
  turn.GiveBack();
  sleeping.worker.Join();
}

TEST(ReadRight, ThatIsHandedOverWakesTheWorkerWithoutInput) {
  SleepingWorker sleeping;
  ReadTurn turn(sleeping.right);
  turn.Ask();
  EXPECT_TRUE(turn.Begin());
  turn.HandOver();
  sleeping.worker.Join();
}

TEST(ReadRight, ThatWasHandedOverIsOfferedAgainUntilInputComes) {
  SleepingWorker sleeping;
  ReadTurn turn(sleeping.right);
  turn.Ask();
  EXPECT_TRUE(turn.Begin());
  turn.HandOver();
  sleeping.worker.Join();
  EXPECT_TRUE(sleeping.isInOrder);
  BackgroundCall next([&] { EXPECT_TRUE(sleeping.right.AwaitInput(sleeping.pipe.GetWatch())); });
  next.AwaitBlocked();
  EXPECT_FALSE(next.HasEnded());
  sleeping.Send();
  next.Join();
}

TEST(ReadRight, OfATurnThatEndsWithoutAWordIsHandedOver) {
  for (const bool begins : {true, false}) {
    SleepingWorker sleeping;
    {
      ReadTurn turn(sleeping.right);
      turn.Ask();
      EXPECT_TRUE(!begins || turn.Begin());
    }
    sleeping.worker.Join();
  }
}

TEST(ReadRight, ThatACallerHandsOverInTheMiddleOfAMessageFailsTheWorkerOnce) {
  SleepingWorker sleeping;
  ReadTurn turn(sleeping.right);
  turn.Ask();
  EXPECT_TRUE(turn.Begin());
  turn.HandOver(true);
  sleeping.worker.Join();
  EXPECT_FALSE(sleeping.isInOrder);
  sleeping.Send();
  EXPECT_TRUE(sleeping.right.AwaitInput(sleeping.pipe.GetWatch()));
}

TEST(ReadRight, OfAWriterThatWaitsForTheServerIsTheWorkersOnceThereIsInput) {
  SleepingWorker sleeping;
  ReadTurn turn(sleeping.right);
  turn.Ask();
  sleeping.pipe.GetWatch().Resume();  // as a write does that has to wait
  sleeping.Send();
  sleeping.worker.Join();
  EXPECT_FALSE(turn.Begin());
}

TEST(ReadRight, AWorkerThatWakesWhileACallerReadsWaitsForIt) {
  SleepingWorker sleeping;
  ReadTurn turn(sleeping.right);
  turn.Ask();
  EXPECT_TRUE(turn.Begin());
  sleeping.pipe.ClosePipe();
  EXPECT_TRUE(sleeping.IsAsleep());
  turn.GiveBack();
  sleeping.worker.Join();
}

}  // namespace
