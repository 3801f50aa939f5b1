#include "tavix/c/CallResult.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <new>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "tavix/settings/client/ProtocolException.h"
#include "tests/c/CodeOf.h"

namespace tavix::test {

namespace {

using c::CallFailure;
using c::Report;
using c::RunCall;
using settings::client::ProtocolException;
using Reason = ProtocolException::Reason;
using testing::HasSubstr;

// The code of a call whose body throws that, and whether its error has the same code and a text.
template <class Exception>
std::string CodeOfThrown(const Exception& exception) {
  tavix_error error;
  const int32_t code = RunCall("a call", &error, {}, [&]() -> int32_t { throw exception; });
  EXPECT_EQ(error.code, code);
  EXPECT_STRNE(error.text, "");
  return CodeOf(code);
}

std::string CodeOfReason(Reason reason) {
  return CodeOfThrown(ProtocolException(reason, "why", "", false));
}

}  // namespace

TEST(CallResult, HasACodeForEachException) {
  EXPECT_EQ(CodeOfThrown(CallFailure(TAVIX_REFUSED, "why")), "REFUSED");
  EXPECT_EQ(CodeOfThrown(osa::Exception("why")), "PARSE");
  EXPECT_EQ(CodeOfThrown(std::bad_alloc()), "NO_MEMORY");
  EXPECT_EQ(CodeOfThrown(std::length_error("why")), "NO_MEMORY");
  EXPECT_EQ(CodeOfThrown(std::runtime_error("why")), "INTERNAL");
  EXPECT_EQ(CodeOfThrown(1), "INTERNAL");
}

TEST(CallResult, HasACodeForEachReasonOfAClient) {
  const std::vector<std::pair<Reason, std::string>> codes = {
      {Reason::kUsage, "USAGE"},       {Reason::kUnreachable, "LOST"},  {Reason::kTimedOut, "TIMEOUT"},
      {Reason::kLost, "LOST"},         {Reason::kNotProtocol, "PARSE"}, {Reason::kTooLarge, "PARSE"},
      {Reason::kUnreadable, "PARSE"},  {Reason::kNoResources, "BUSY"},  {Reason::kDropped, "LOST"},
      {Reason::kTooOld, "UNSUPPORTED"}};
  for (const auto& [reason, code] : codes) EXPECT_EQ(CodeOfReason(reason), code);
}

TEST(CallResult, OfSuccessClearsAnEarlierError) {
  tavix_error error = {TAVIX_PARSE, "text"};
  EXPECT_EQ(RunCall("a call", &error, {}, [] { return TAVIX_OK; }), TAVIX_OK);
  EXPECT_EQ(error.code, TAVIX_OK);
  EXPECT_STREQ(error.text, "");
}

TEST(CallResult, CutsATextThatIsTooLong) {
  tavix_error error;
  Report(&error, TAVIX_PARSE, std::string(10000, 'x').c_str());
  EXPECT_EQ(error.text, std::string(sizeof error.text - 1, 'x'));
}

TEST(CallResult, NeedsNoPlaceForTheError) {
  EXPECT_EQ(CodeOf(Report(nullptr, TAVIX_PARSE, "text")), "PARSE");
  EXPECT_EQ(CodeOf(RunCall("a call", nullptr, {{"it", nullptr}}, [] { return TAVIX_OK; })), "USAGE");
}

TEST(CallResult, NamesTheArgumentThatIsNull) {
  tavix_error error;
  EXPECT_EQ(CodeOf(tavix_document_set_z(nullptr, "A", "x", "1", &error)), "USAGE");
  EXPECT_STREQ(error.text, "tavix_document_set: \"document\" is null");
}

TEST(CallResult, HasANameForEachCode) {
  EXPECT_EQ(CodeOf(TAVIX_OK), "OK");
  EXPECT_EQ(CodeOf(TAVIX_NOT_SET), "NOT_SET");
  EXPECT_EQ(CodeOf(TAVIX_CONDITION), "CONDITION");
  EXPECT_EQ(CodeOf(TAVIX_TIMEOUT), "TIMEOUT");
  EXPECT_EQ(CodeOf(TAVIX_LOST), "LOST");
  EXPECT_EQ(CodeOf(TAVIX_REFUSED), "REFUSED");
  EXPECT_EQ(CodeOf(TAVIX_PARSE), "PARSE");
  EXPECT_EQ(CodeOf(TAVIX_USAGE), "USAGE");
  EXPECT_EQ(CodeOf(TAVIX_NO_MEMORY), "NO_MEMORY");
  EXPECT_EQ(CodeOf(TAVIX_BUSY), "BUSY");
  EXPECT_EQ(CodeOf(TAVIX_UNSUPPORTED), "UNSUPPORTED");
  EXPECT_EQ(CodeOf(TAVIX_INTERNAL), "INTERNAL");
  EXPECT_EQ(CodeOf(-1) + CodeOf(12), "UNKNOWNUNKNOWN");
}

}  // namespace tavix::test
