#include <gtest/gtest.h>
#include <sys/stat.h>

#include <csignal>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/programs/web/https/Https.h"
#include "tests/support/CommandProcess.h"

namespace tavix::test {

namespace {

class WebCertificate : public testing::Test {
 protected:
  std::string Write(const std::string& name, const std::string& text, mode_t mode = 0600) const {
    std::string path = _folder.Write(name, text);
    chmod(path.c_str(), mode);
    return path;
  }

  // Why the program does not start.
  std::string FindRefusal(const std::vector<std::string>& arguments, const char* program = TAVIX_WEB_PROGRAM) const {
    std::vector<std::string> words{program, "--listen", "127.0.0.1:0"};
    words.insert(words.end(), arguments.begin(), arguments.end());
    const Outcome outcome = RunToEnd(_folder.GetPath(), words);
    EXPECT_EQ(outcome.status, 78) << outcome.errors;
    return outcome.errors;
  }

  std::string FindRefusal(const std::string& certificate, const std::string& key) const {
    return FindRefusal({"--tls-cert", certificate, "--tls-key", key});
  }

  const TemporaryDirectory _folder;
  const TestCertificates _certificates{_folder};
  const std::string _certificate = _folder.Path("authority.pem");
  const std::string _key = _folder.Path("authority.key");
};

std::string Begin(const std::string& what) {
  return "tavix-settings-web: " + what;
}

}  // namespace

TEST_F(WebCertificate, NeedsItsKey) {
  EXPECT_EQ(FindRefusal({"--tls-cert", _certificate}), Begin("--tls-cert '" + _certificate + "' needs --tls-key\n"));
  EXPECT_EQ(FindRefusal({"--tls-key", _key}), Begin("--tls-key '" + _key + "' needs --tls-cert\n"));
}

TEST_F(WebCertificate, HasToBeThere) {
  EXPECT_EQ(FindRefusal("/nothing", _key), Begin("Failed to read '/nothing': No such file or directory\n"));
  EXPECT_EQ(FindRefusal(_folder.GetPath(), _key), Begin("Failed to read '" + _folder.GetPath() + "': it is no file\n"));
  EXPECT_EQ(FindRefusal(_certificate, "/nothing"), Begin("Failed to read '/nothing': No such file or directory\n"));
}

TEST_F(WebCertificate, HasAKeyThatNobodyElseMayRead) {
  const std::string open = Write("open.key", _folder.Read("authority.key"), 0640);
  EXPECT_EQ(FindRefusal(_certificate, open),
            Begin("Failed to read '" + open + "': others than its owner may use it; its mode has to be 0600\n"));
}

TEST_F(WebCertificate, IsPem) {
  const std::string text = Write("text", "no certificate\n");
  const std::string damaged = Write("damaged", _folder.Read("authority.pem") + "-----BEGIN CERTIFICATE-----\nx\n");
  EXPECT_EQ(FindRefusal(text, _key).find(Begin("Failed to use '" + text + "': it holds no certificate as PEM: ")), 0U);
  EXPECT_EQ(FindRefusal(_key, _key).find(Begin("Failed to use '" + _key + "': it holds no certificate as PEM: ")), 0U);
  EXPECT_EQ(FindRefusal(damaged, _key).find(Begin("Failed to use '" + damaged + "': ")), 0U);
  EXPECT_EQ(FindRefusal(_certificate, text).find(Begin("Failed to use '" + text + "': it holds no key as PEM: ")), 0U);
}

TEST_F(WebCertificate, HasOneKey) {
  TestCertificates others(_folder, "others");
  const std::string key = _folder.Path("others.key");
  EXPECT_EQ(FindRefusal(_certificate, key)
                .find(Begin("Failed to use '" + key + "': it is not the key of the certificate in '" + _certificate)),
            0U);
}

TEST_F(WebCertificate, HasAKeyWithoutAPassphrase) {
  const Outcome outcome = RunToEnd(
      _folder.GetPath(), {"openssl", "pkcs8", "-topk8", "-in", _key, "-out", "locked.key", "-passout", "pass:x"});
  ASSERT_EQ(outcome.status, 0) << outcome.errors;
  const std::string locked = _folder.Path("locked.key");
  chmod(locked.c_str(), 0600);
  EXPECT_EQ(FindRefusal(_certificate, locked),
            Begin("Failed to use '" + locked + "': it needs a passphrase, and nobody is there to type one\n"));
}

TEST_F(WebCertificate, IsRefusedByAProgramWithoutHttps) {
  const char* const program = TAVIX_WEB_PROGRAM_WITHOUT_TLS;
  EXPECT_EQ(FindRefusal({"--tls-cert", _certificate, "--tls-key", _key}, program),
            Begin("--tls-cert and --tls-key have no effect: this program was built without HTTPS (TAVIX_WEB_TLS)\n"));
  const Outcome help = RunToEnd(_folder.GetPath(), {program, "--help"});
  EXPECT_NE(help.output.find("This program was built without HTTPS"), std::string::npos);
  EXPECT_EQ(RunToEnd(_folder.GetPath(), {TAVIX_WEB_PROGRAM, "--help"}).output.find("without HTTPS"), std::string::npos);
}

TEST(WebCertificateReload, TakesTheNextCertificate) {
  Https https;
  https.certificates.Make("next", "DNS:localhost");  // takes a while, which a connection has only for its first request
  HttpsConnection before = https.Connect();
  EXPECT_EQ(before.GetServerName(), "server");
  for (const char* kind : {".pem", ".key"})
    std::filesystem::rename(https.folder.Path(std::string("next") + kind),
                            https.folder.Path(std::string("server") + kind));
  https.web.process.Signal(SIGHUP);
  while (https.Connect().GetServerName() != "next") https.web.process.AwaitIdle();
  EXPECT_EQ(before.Ask("GET", "/healthz").status, 200);
}

TEST(WebCertificateReload, KeepsTheOneThatWorks) {
  Https https;
  https.web.process.AwaitAddresses();
  https.folder.Write("server.pem", "no certificate\n");
  https.web.process.Signal(SIGHUP);
  https.web.process.AwaitErrors("; the certificate stays as it was\n");
  EXPECT_EQ(https.Connect().GetServerName(), "server");
  EXPECT_NE(https.web.process.GetErrors().find("SIGHUP: Failed to use '" + https.folder.Path("server.pem") + "': "),
            std::string::npos);
}

}  // namespace tavix::test
