#include "tests/support/OtherClients.h"

#include <sys/socket.h>

#include <algorithm>
#include <memory>

#include "tests/support/Loads.h"
#include "tests/support/ProtocolClient.h"

namespace tavix::test {

namespace {

using std::chrono::milliseconds;

constexpr size_t kOfEachKind = 2;

void Interrupt(const ProtocolClient& client) {
  shutdown(client.GetDescriptor(), SHUT_RDWR);
}

std::string Compare(const std::string& wanted, const std::string& received) {
  return wanted == received ? "" : "wanted:\n" + wanted + "received:\n" + received;
}

std::string Get(ProtocolClient& client, size_t group) {
  const std::string wanted = "data\n" + LoadedGroupText(group) + ".\n";
  client.Send("get delimited\n" + LoadedGroupName(group) + "\n.\n");
  return Compare(wanted, client.Read(wanted.size()));
}

// Takes a group of its own from the state to the next one.
std::string Change(ProtocolClient& client, size_t number, size_t& state) {
  const std::string group = "[Others/Own" + std::to_string(number) + "]\nn=";
  const std::string condition = state == 0 ? "" : group + std::to_string(state) + "\n";
  client.Send("test-and-merge\n" + condition + ".\n" + group + std::to_string(++state) + "\n.\n");
  const std::string wanted = "result\nok\n";
  return Compare(wanted, client.Read(wanted.size()));
}

void AddGetter(std::list<PacedCalls>& calls, unsigned short port, size_t number, milliseconds pause) {
  const auto client = std::make_shared<ProtocolClient>(port);
  calls.emplace_back(
      pause, [=] { return Get(*client, number); }, [=] { Interrupt(*client); });
}

void AddChanger(std::list<PacedCalls>& calls, unsigned short port, size_t number, milliseconds pause) {
  const auto client = std::make_shared<ProtocolClient>(port);
  calls.emplace_back(
      pause, [=, state = size_t{0}]() mutable { return Change(*client, number, state); }, [=] { Interrupt(*client); });
}

CallFigures StopAll(std::list<PacedCalls>& calls) {
  Durations all;
  for (PacedCalls& one : calls) all.Add(one.Stop());
  return Summarise(all);
}

}  // namespace

OtherClients::OtherClients(unsigned short port, milliseconds pause) {
  for (size_t i = 0; i < kOfEachKind; ++i) AddGetter(_gets, port, i, pause);
  for (size_t i = 0; i < kOfEachKind; ++i) AddChanger(_changes, port, i, pause);
}

size_t OtherClients::CountAnswered() const {
  size_t fewest = _gets.front().Count();
  for (const PacedCalls& one : _gets) fewest = std::min(fewest, one.Count());
  for (const PacedCalls& one : _changes) fewest = std::min(fewest, one.Count());
  return fewest;
}

void OtherClients::Stop() {
  _getFigures = StopAll(_gets);
  _changeFigures = StopAll(_changes);
}

std::string OtherClients::GetFailures() const {
  std::string failures;
  for (const PacedCalls& one : _gets) failures += one.GetFailure();
  for (const PacedCalls& one : _changes) failures += one.GetFailure();
  return failures;
}

}  // namespace tavix::test
