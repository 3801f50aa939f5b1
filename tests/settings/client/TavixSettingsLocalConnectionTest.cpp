#include "tavix/settings/client/TavixSettingsLocalConnection.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <istream>
#include <ostream>
#include <string>

#include "tavix/osa/Exception.h"

namespace {

using tavix::osa::Exception;
using tavix::settings::client::TavixSettingsLocalConnection;

constexpr char kInvalid[] = "TavixSettingsLocalConnection: Connection is in invalid state";

// What comes up to the terminator, or to the end.
std::string ReadReply(std::istream& in) {
  std::string text;
  for (std::string line; line != "." && std::getline(in, line);) text += line + '\n';
  return text;
}

TEST(TavixSettingsLocalConnection, IsReadyOnlyOnceItIsAskedFor) {
  TavixSettingsLocalConnection connection;
  EXPECT_FALSE(connection.IsReady());
  connection.EnsureConnection(0);
  EXPECT_TRUE(connection.IsReady());
}

TEST(TavixSettingsLocalConnection, LeadsToAStoreOfItsOwnThatIsEmpty) {
  TavixSettingsLocalConnection connection;
  connection.EnsureConnection(3);
  *connection.GetOstream() << "get delimited\n*\n.\nmerge\n[A]\nx=1\n.\nget delimited\n*\n.\n" << std::flush;
  EXPECT_EQ(ReadReply(*connection.GetIstream()), "data\n.\n");
  EXPECT_EQ(ReadReply(*connection.GetIstream()), "data\n[A]\nx=1\n.\n");
}

TEST(TavixSettingsLocalConnection, ClosingDoesNothing) {
  TavixSettingsLocalConnection connection;
  connection.EnsureConnection(3);
  connection.CloseConnection();
  connection.ClearStreams();
  connection.EnsureConnection(3);
  *connection.GetOstream() << "get delimited\n.\n" << std::flush;
  EXPECT_EQ(ReadReply(*connection.GetIstream()), "data\n.\n");
}

TEST(TavixSettingsLocalConnection, CannotBeMadeAgainOnceItsHandlerHasQuit) {
  TavixSettingsLocalConnection connection;
  connection.EnsureConnection(3);
  *connection.GetOstream() << "quit\n" << std::flush;
  EXPECT_EQ(ReadReply(*connection.GetIstream()), "");
  EXPECT_THAT([&] { connection.EnsureConnection(3); }, testing::ThrowsMessage<Exception>(kInvalid));
}

// The pipes are closed by the handler's end, however it ends, also when nobody has looked at the streams since.
TEST(TavixSettingsLocalConnection, AHandlerThatFailedClosesItsPipes) {
  TavixSettingsLocalConnection connection;
  connection.EnsureConnection(3);
  *connection.GetOstream() << "merge\nno setting\n.\nget delimited\n.\n" << std::flush;
  EXPECT_EQ(ReadReply(*connection.GetIstream()), "");
  connection.GetIstream()->clear();
  EXPECT_THAT([&] { connection.EnsureConnection(3); }, testing::ThrowsMessage<Exception>(kInvalid));
}

TEST(TavixSettingsLocalConnection, AFailedStreamIsAnInvalidState) {
  TavixSettingsLocalConnection input, output;
  input.EnsureConnection(3);
  output.EnsureConnection(3);
  input.GetIstream()->setstate(std::ios::failbit);
  output.GetOstream()->setstate(std::ios::badbit);
  EXPECT_THAT([&] { input.EnsureConnection(3); }, testing::ThrowsMessage<Exception>(kInvalid));
  EXPECT_THAT([&] { output.EnsureConnection(3); }, testing::ThrowsMessage<Exception>(kInvalid));
}

TEST(TavixSettingsLocalConnection, AbortingEndsItForGood) {
  TavixSettingsLocalConnection connection;
  connection.EnsureConnection(3);
  connection.AbortConnection();
  EXPECT_EQ(ReadReply(*connection.GetIstream()), "");
  EXPECT_THROW(connection.EnsureConnection(3), Exception);
}

TEST(TavixSettingsLocalConnection, TheDestructorEndsAHandlerThatWasNeverUsed) {
  for (int i = 0; i < 50; ++i) TavixSettingsLocalConnection();
}

}  // namespace
