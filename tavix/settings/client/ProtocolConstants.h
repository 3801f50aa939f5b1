#pragma once

// The words of the settings protocol, for both of its ends. docs/protocol.md describes every message.
namespace tavix::settings::client::protocol {

constexpr char kGet[] = "get";
constexpr char kMerge[] = "merge";
constexpr char kNote[] = "note";
constexpr char kTry[] = "try";
constexpr char kTestAndMerge[] = "test-and-merge";
constexpr char kAmend[] = "amend";
constexpr char kOverwrite[] = "overwrite";
constexpr char kRestore[] = "restore";
constexpr char kSubscribe[] = "subscribe";
constexpr char kSerialize[] = "serialize";
constexpr char kDump[] = "dump";
constexpr char kInfo[] = "info";
constexpr char kQuit[] = "quit";

constexpr char kDelimited[] = "delimited";
constexpr char kNoPersist[] = "nopersist";
constexpr char kAll[] = "all";
constexpr char kSubscribed[] = "subscribed";
constexpr char kServer[] = "server";
constexpr char kFeatures[] = "features";
constexpr char kWhoami[] = "whoami";
constexpr char kRefused[] = "refused";

constexpr char kData[] = "data";
constexpr char kResult[] = "result";
constexpr char kAsync[] = "async";
constexpr char kAsyncChange[] = "async change";
constexpr char kOk[] = "ok";
constexpr char kFailure[] = "failure";

// Ends lists and payloads when it stands alone on a line.
constexpr char kTerminator[] = ".";
constexpr char kTerminatorLine[] = ".\n";

// How long a line may be, without its line feed, that a client sends.
constexpr unsigned long kMaxLineBytes = 16 * 1024 * 1024;

}  // namespace tavix::settings::client::protocol
