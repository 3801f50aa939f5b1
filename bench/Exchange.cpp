#include "bench/Exchange.h"

#include "bench/SampleSettings.h"
#include "bench/Timing.h"
#include "tavix/osa/Exception.h"

namespace tavix::bench {

namespace {

// One setting of a group as settings text.
std::string SettingText(int group, int key, const std::string& value) {
  return "[" + GroupName(group) + "]\n" + KeyName(key) + "=" + value + "\n";
}

std::string ValueOfVersion(int group, int version) {
  return ValueText(group, version % 1000);
}

// The whole group once its first key has the value of "version".
std::string ChangedGroupText(int group, int version) {
  std::string text = SettingText(group, 0, ValueOfVersion(group, version));
  for (int key = 1; key < kKeysOfGroup; ++key) text += KeyName(key) + "=" + ValueText(group, key) + "\n";
  return text;
}

std::string GetRequest(int group) {
  return "get delimited\n" + GroupName(group) + "\n.\n";
}

std::string DataReply(const std::string& text) {
  return "data\n" + text + ".\n";
}

}  // namespace

Exchange GetExchange(int group) {
  return {GetRequest(group), DataReply(GroupText(group, kKeysOfGroup))};
}

Exchange GetNothingExchange() {
  return {"get delimited\n.\n", DataReply("")};
}

Exchange ChangeExchange(const std::string& command, int group, int version) {
  const std::string change = command + "\n" + SettingText(group, 0, ValueOfVersion(group, version)) + ".\n";
  return {change + GetRequest(group), DataReply(ChangedGroupText(group, version))};
}

Exchange TestAndMergeExchange(int group, int version) {
  const std::string condition = SettingText(group, 1, ValueText(group, 1)) + ".\n";
  const std::string change = SettingText(group, 0, ValueOfVersion(group, version)) + ".\n";
  return {"test-and-merge\n" + condition + change, "result\nok\n"};
}

Exchange NoticeExchange(int group, int version) {
  const std::string merge = "merge nopersist\n" + SettingText(group, 0, ValueOfVersion(group, version)) + ".\n";
  return {merge, "async change\n" + GroupName(group) + "\n.\n" + ChangedGroupText(group, version) + ".\n"};
}

double TimedExchange(const osa::Descriptor& connection, const Exchange& exchange) {
  std::string reply(exchange.reply.size(), '\0');
  const double start = NowInMicroseconds();
  WriteAll(connection, exchange.request);
  ReadAll(connection, reply.data(), reply.size());
  const double end = NowInMicroseconds();
  if (reply != exchange.reply) throw osa::Exception("The reply to \"%s\" is wrong", exchange.request.c_str());
  return end - start;
}

}  // namespace tavix::bench
