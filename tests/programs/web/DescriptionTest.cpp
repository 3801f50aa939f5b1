#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <set>
#include <sstream>

#include "programs/web/interface/Router.h"
#include "programs/web/options/CommandLine.h"
#include "tests/programs/web/Web.h"

namespace tavix::test {

using nlohmann::json;

namespace {

std::string Upper(std::string text) {
  for (char& c : text) c = static_cast<char>(c >= 'a' && c <= 'z' ? c - 'a' + 'A' : c);
  return text;
}

std::string Lower(std::string text) {
  for (char& c : text) c = static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
  return text;
}

std::string ReadDocument(const std::string& path) {
  std::ifstream in(TAVIX_SOURCE_DIR "/" + path);
  return {std::istreambuf_iterator<char>(in), {}};
}

}  // namespace

TEST(WebDescription, NamesEveryRequestThatThereIs) {
  Web web;
  const json paths = web.Get("/openapi.json")["paths"];
  std::set<std::string> described;
  for (const auto& [path, methods] : paths.items()) {
    for (const auto& [method, operation] : methods.items()) described.insert(Upper(method) + " " + path);
  }
  std::set<std::string> known;
  for (const web::Route& route : web::GetRoutes()) known.insert(std::string(route.method) + " " + route.path);
  EXPECT_EQ(described, known);
}

TEST(WebDescription, NamesEveryParameterThatThereIs) {
  Web web;
  const json paths = web.Get("/openapi.json")["paths"];
  for (const web::Route& route : web::GetRoutes()) {
    std::istringstream words(route.parameters);
    std::set<std::string> known;
    for (std::string word; words >> word;) known.insert(word.substr(0, word.find('*')));
    std::set<std::string> described;
    for (const json& parameter : paths[route.path][Lower(route.method)].value("parameters", json::array())) {
      if (parameter["in"] == "query") described.insert(parameter["name"].get<std::string>());
    }
    EXPECT_EQ(described, known) << route.method << route.path;
  }
}

TEST(WebDescription, AnswersAsTheRequestsDo) {
  Web web;
  const json paths = web.Get("/openapi.json")["paths"];
  for (const auto& [path, methods] : paths.items()) {
    for (const auto& [method, operation] : methods.items()) {
      std::string target = path + (path == "/changes" ? "?wait=0" : "?");
      for (const json& parameter : operation.value("parameters", json::array())) {
        if (parameter.value("required", false)) target += "&" + parameter["name"].get<std::string>() + "=Nothing";
      }
      const HttpReply reply = web.Ask(Upper(method), target, method == "get" ? "" : "{}");
      if (reply.status < 400) {
        EXPECT_TRUE(operation["responses"].contains(std::to_string(reply.status))) << method << " " << target;
      } else {
        EXPECT_EQ(reply.headers.at("content-type"), "application/problem+json") << method << " " << target;
        EXPECT_TRUE(reply.status != 405 && reply.status != 500) << method << " " << target << reply.status;
      }
    }
  }
}

TEST(WebDescription, OfTheManPageHasEveryOption) {
  const std::string page = ReadDocument("docs/man/tavix-settings-web.8.scd");
  const std::string help = web::FormatHelp();
  size_t count = 0;
  for (size_t at = 0; (at = help.find("\n  --", at)) != std::string::npos; ++at, ++count) {
    const std::string option = help.substr(at + 3, help.find(' ', at + 3) - at - 3);
    EXPECT_NE(page.find("*" + option + "*"), std::string::npos) << option;
  }
  EXPECT_GT(count, 10U);
}

TEST(WebDescription, OfTheDocumentHasEveryRequest) {
  const std::string document = ReadDocument("docs/web.md");
  for (const web::Route& route : web::GetRoutes())
    EXPECT_NE(document.find(std::string(route.method) + " " + route.path), std::string::npos) << route.path;
}

}  // namespace tavix::test
