#include "programs/web/options/CommandLine.h"

#include <getopt.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <limits>
#include <vector>

#include "programs/common/client/Join.h"
#include "programs/web/http/Encryption.h"
#include "programs/web/http/Peer.h"
#include "tavix/osa/Exception.h"

namespace tavix::web {

namespace {

struct Entry {
  const char* name;
  const char* argument;  // what the help calls the value; null: it takes none
  const char* help;
  void (*apply)(Options& options, const std::string& value);
};

size_t ParseNumber(const std::string& text, size_t low, size_t high) {
  size_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size() || number < low || number > high)
    throw osa::Exception("expected a number from %zu to %zu", low, high);
  return number;
}

// In a user namespace all users that it does not have are this one.
uid_t ParseUser(const std::string& text) {
  constexpr uid_t kOverflowUser = 65534;
  const auto user = static_cast<uid_t>(ParseNumber(text, 0, std::numeric_limits<uid_t>::max() - 1));
  if (user == kOverflowUser) throw osa::Exception("this user stands for all that the kernel can't name");
  return user;
}

std::string ParseText(const std::string& text) {
  if (text.empty()) throw osa::Exception("expected a text");
  return text;
}

std::string ParseHost(std::string text) {
  for (char& c : text) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return ParseText(text);
}

std::string ParseAddress(const std::string& text) {
  std::optional<std::string> address = NormalizeAddress(text);
  if (!address) throw osa::Exception("expected an address of IP");
  return *std::move(address);
}

std::string ParseBasePath(std::string text) {
  const bool isPlain = std::all_of(text.begin(), text.end(), [](char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '/' || c == '-' ||
           c == '_' || c == '.';
  });
  if (text.empty() || text[0] != '/' || !isPlain) throw osa::Exception("expected a path such as /settings");
  while (!text.empty() && text.back() == '/') text.pop_back();
  return text;
}

constexpr size_t kMaxBody = 64 * size_t{1024} * 1024;
constexpr size_t kMinAnswer = 1024 * size_t{1024};
constexpr size_t kMaxAnswer = 1024 * kMinAnswer;
constexpr size_t kMaxConnections = 128;
constexpr size_t kMaxSeconds = 600;

const Entry kEntries[] = {
    {"listen", "ADDRESS", "HOST:PORT, [V6]:PORT or unix:PATH (127.0.0.1:7280)",
     [](Options& options, const std::string& value) { options.listen = ParseText(value); }},
    {"server", "ADDRESS", "The daemon: HOST:PORT, [V6]:PORT or unix:PATH",
     [](Options& options, const std::string& value) { options.server = ParseText(value); }},
    {"allow-remote", nullptr, "Listen on an address that other machines reach",
     [](Options& options, const std::string&) { options.allowsRemote = true; }},
    {"password-file", "FILE", "A file of mode 0600 with what --hash-password prints",
     [](Options& options, const std::string& value) { options.passwordFile = ParseText(value); }},
    {"hash-password", nullptr, "Read a password from standard input, print its argon2id text, and end",
     [](Options& options, const std::string&) { options.action = Options::Action::kHashPassword; }},
    {"token-file", "FILE", "A file of mode 0600 with lines NAME TOKEN read|write",
     [](Options& options, const std::string& value) { options.tokenFile = ParseText(value); }},
    {"allow-uid", "UID", "Let this user in on a unix socket, and no others; may be repeated",
     [](Options& options, const std::string& value) { options.allowedUsers.insert(ParseUser(value)); }},
    {"read-only", nullptr, "Refuse every write",
     [](Options& options, const std::string&) { options.isReadOnly = true; }},
    {"show-restricted", nullptr, "Show the values of restricted groups",
     [](Options& options, const std::string&) { options.showsRestricted = true; }},
    {"host", "NAME", "A name that requests may call this host by; may be repeated",
     [](Options& options, const std::string& value) { options.hosts.insert(ParseHost(value)); }},
    {"trusted-proxy", "ADDRESS", "A proxy whose forwarded headers count, or 'unix'; may be repeated",
     [](Options& options, const std::string& value) {
       options.trustedProxies.insert(value == Options::kUnixProxy ? value : ParseAddress(value));
     }},
    {"base-path", "PATH", "Serve below this path, such as /settings",
     [](Options& options, const std::string& value) { options.basePath = ParseBasePath(value); }},
    {"max-body", "BYTES", "Of a request (1048576)",
     [](Options& options, const std::string& value) { options.maxBodyBytes = ParseNumber(value, 1024, kMaxBody); }},
    {"max-answer", "BYTES", "Of an answer (16777216)",
     [](Options& options, const std::string& value) {
       options.maxAnswerBytes = ParseNumber(value, kMinAnswer, kMaxAnswer);
     }},
    {"max-per-address", "COUNT", "Connections of one address (16)",
     [](Options& options, const std::string& value) {
       options.maxPerAddress = ParseNumber(value, 1, kMaxConnections);
     }},
    {"timeout", "SECONDS", "How long a request waits for the daemon (5)",
     [](Options& options, const std::string& value) {
       options.timeout = std::chrono::seconds(ParseNumber(value, 1, kMaxSeconds));
     }},
    {"tls-cert", "FILE", "Serve HTTPS alone, with this certificate and its chain, as PEM",
     [](Options& options, const std::string& value) { options.certificateFile = ParseText(value); }},
    {"tls-key", "FILE", "The certificate's key, as PEM: a file of mode 0600",
     [](Options& options, const std::string& value) { options.keyFile = ParseText(value); }},
    {"help", nullptr, "Print this text",
     [](Options& options, const std::string&) { options.action = Options::Action::kShowHelp; }},
    {"version", nullptr, "Print the version",
     [](Options& options, const std::string&) { options.action = Options::Action::kShowVersion; }},
};

bool UsageError() {
  std::fputs("Try 'tavix-settings-web --help'.\n", stderr);
  return false;
}

bool Apply(const Entry& entry, const std::string& value, Options& options) {
  try {
    entry.apply(options, value);
    return true;
  } catch (const osa::Exception& exception) {
    std::fprintf(stderr, "tavix-settings-web: --%s '%s': %s\n", entry.name, value.c_str(), exception.what());
    return UsageError();
  }
}

}  // namespace

bool ParseCommandLine(int argc, char** argv, Options& options) {
  constexpr int kFirst = 256;
  std::vector<option> known;
  for (const Entry& entry : kEntries)
    known.push_back({entry.name, entry.argument ? required_argument : no_argument, nullptr,
                     kFirst + static_cast<int>(known.size())});
  known.push_back({nullptr, 0, nullptr, 0});
  optind = 1;
  for (int code = 0; (code = getopt_long(argc, argv, "", known.data(), nullptr)) != -1;) {
    if (code < kFirst) return UsageError();
    if (!Apply(kEntries[code - kFirst], optarg ? optarg : "", options)) return false;
  }
  if (optind == argc) return true;
  std::fprintf(stderr, "tavix-settings-web: unexpected argument '%s'\n", argv[optind]);
  return UsageError();
}

std::string FormatHelp() {
  std::string help = "Usage: tavix-settings-web [OPTION...]\n\nServes the settings of a device over HTTP.\n\n";
  for (const Entry& entry : kEntries) {
    std::string option = std::string("  --") + entry.name + (entry.argument ? std::string(" ") + entry.argument : "");
    option.resize(std::max<size_t>(option.size() + 1, 28), ' ');
    help += programs::Join({option, entry.help, "\n"});
  }
  if (!Encryption::kIsBuiltIn) help += "\nThis program was built without HTTPS: it refuses --tls-cert and --tls-key.\n";
  return help;
}

}  // namespace tavix::web
