#include "ossilar/search/http_embedder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <future>

#include "ossilar/search/http_client.h"
#include "ossilar/utils/json.h"
#include "ossilar/utils/task.h"
#include "support/http_server.h"
#include "support/threads.h"

namespace ossilar::search {
namespace {

using std::chrono::milliseconds;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using testing::HttpServer;
using ::testing::Not;

// What a service answers: for each text the vector (its length, 1), the last first.
std::string vectors_for(const HttpServer::Request& request) {
  const Map input = Map::parse(request.body).at("input");
  Map data = Map::array();
  for (std::size_t i = input.size(); i-- > 0;)
    data.push_back(Map{{"index", i}, {"embedding", Map::array({input[i].get<std::string>().size(), 1})}});
  return HttpServer::ok(Map{{"data", data}}.dump());
}

// An embedder of the server that records its waits instead of waiting.
struct Embedding {
  explicit Embedding(const HttpServer& server, HttpEmbedderOptions options = {}) {
    if (options.url.empty()) options.url = server.url();
    options.model = "m";
    options.wait = [this](milliseconds wait, const utils::Task&) { waits.push_back(wait.count()); };
    options.random = [] { return 1.0; };
    embedder = make_http_embedder(options);
  }
  // "" when all went well, else the message of the failure.
  std::string embed(const std::vector<std::string>& texts = {"a"}) {
    try {
      vectors = embedder->embed(texts, {});
      return "";
    } catch (const utils::Error& error) {
      return error.what();
    }
  }
  std::vector<milliseconds::rep> waits;
  std::vector<std::vector<float>> vectors;
  std::unique_ptr<Embedder> embedder;
};

TEST(HttpEmbedder, VectorsComeInTheOrderOfTheTextsAndHaveLengthOne) {
  const HttpServer server(vectors_for);
  Embedding embedding(server);
  EXPECT_EQ(embedding.embedder->dimensions(), 2U);
  ASSERT_EQ(embedding.embed({"", "aaa"}), "");
  EXPECT_THAT(embedding.vectors[0], ElementsAre(0.0F, 1.0F));
  EXPECT_FLOAT_EQ(embedding.vectors[1][0], 3 / std::sqrt(10.0F));
  EXPECT_THAT(server.requests().back().head,
              AllOf(HasSubstr("POST /v1/embeddings HTTP"), Not(HasSubstr("Authorization"))));
  EXPECT_EQ(Map::parse(server.requests().back().body),
            (Map{{"model", "m"}, {"input", Map::array({"", "aaa"})}, {"encoding_format", "float"}}));
}

TEST(HttpEmbedder, BatchesAreLimitedInNumberAndSize) {
  const HttpServer server(vectors_for);
  Embedding embedding(server);
  ASSERT_EQ(embedding.embed(std::vector<std::string>(130, "x")), "");
  EXPECT_EQ(embedding.vectors.size(), 130U);
  EXPECT_EQ(server.requests().size(), 3U);
  ASSERT_EQ(embedding.embed(std::vector<std::string>(3, std::string(100'000, 'x'))), "");
  EXPECT_EQ(server.requests().size(), 5U) << "two and one";
  ASSERT_EQ(embedding.embed({}), "");
  EXPECT_EQ(server.requests().size(), 5U);
}

TEST(HttpEmbedder, TheModelNameIsTheSameForEverySpellingOfTheUrl) {
  const auto model = [](const char* url) { return make_http_embedder({.url = url, .model = "m"})->model(); };
  for (const char* url : {"https://host/v1", "https://host/v1/", "http://host/v1/embeddings",
                          "https://host/v1/embeddings/?a=b"})
    EXPECT_EQ(model(url), "http:host/v1/embeddings:m") << url;
  EXPECT_EQ(model("https://host:8080/v1"), "http:host:8080/v1/embeddings:m");
  for (const char* url : {"ftp://host/v1", "host", "", "https://user:pw@host/v1", "https://:pw@host/v1"})
    EXPECT_THROW(model(url), utils::ConfigError) << url;
}

TEST(HttpEmbedder, SaysWhatIsWrongWithAnAnswer) {
  const auto item = [](const char* index, const char* vector) {
    return std::string(R"({"index": )") + index + R"(, "embedding": )" + vector + "}";
  };
  const auto data = [](const std::string& items) { return HttpServer::ok(R"({"data": [)" + items + "]}"); };
  struct Case {
    std::string answer;
    const char* says;
  };
  const std::vector<Case> cases{
      {HttpServer::ok("<html>"), "its answer: not JSON"},
      {HttpServer::ok("{}"), "has 0 embeddings for 2 texts"},
      {data(item("0", "[1]")), "has 1 embeddings for 2 texts"},
      {data(item("0", "[1]") + "," + item("0", "[1]")), "repeated"},
      {data(item("0", "[1]") + "," + item("2", "[1]")), "out of range"},
      {data(item("0", "[1]") + "," + item("-1", "[1]")), "out of range"},
      {data(item("0", "[1]") + "," + item("1", "[]")), "without an embedding"},
      {data(item("0", "[1]") + "," + item("1", "[null]")), "not a number"},
      {data(item("0", "[1e200]") + "," + item("1", "[1]")), "too large"},
      {data(item("0", "[1e999]") + "," + item("1", "[1]")), "1e999"},
      {data(item("0", "[1]") + "," + item("1", "[1, 2]")), "a vector of 2 numbers, and others have 1"},
      {HttpServer::ok(std::string(40 << 20, ' ')), "longer than"},
      {HttpServer::status("401 No", "secrets"), "requires a key"},
      {HttpServer::status("301 Moved", "", "Location: http://127.0.0.1:1/\r\n"),
       "redirects to another address"},
      {HttpServer::status("404 No", "no such model\x1b[31m"), "status 404: no such model<1B>[31m"},
  };
  for (const Case& each : cases) {
    const HttpServer server([&](const auto&) { return each.answer; });
    Embedding embedding(server);
    EXPECT_THAT(embedding.embed({"a", "b"}), AllOf(HasSubstr(each.says), HasSubstr("127.0.0.1:")))
        << each.says;
    EXPECT_EQ(server.requests().size(), 1U) << "asking again would not help: " << each.says;
  }
}

TEST(HttpEmbedder, RetriesWhatMayPass) {
  struct Case {
    const char* why;
    std::vector<std::string> failures;  // the first answers; then it answers well
    std::vector<milliseconds::rep> waits;
    const char* says;  // "" when it succeeds at last
  };
  const std::string busy = HttpServer::status("503 Busy");
  const std::vector<Case> cases{
      {"busy for a while", {busy, busy}, {500, 1000}, ""},
      {"too many requests", {HttpServer::status("429 Slow", "", "Retry-After: 7\r\n")}, {7000}, ""},
      {"no wait is too long", {HttpServer::status("429 Slow", "", "Retry-After: 86400\r\n")}, {30000}, ""},
      {"a connection that breaks", {"", "HTTP/1.1 200 OK\r\nContent-Length: 99\r\n\r\n{"}, {500, 1000}, ""},
      {"busy for ever", {busy, busy, busy, busy, busy}, {500, 1000, 2000}, "status 503"},
      {"no answer at all", {"", "", "", "", ""}, {500, 1000, 2000}, "cannot reach"},
  };
  for (const Case& each : cases) {
    std::size_t asked = 0;
    const HttpServer server([&](const HttpServer::Request& request) {
      return asked < each.failures.size() ? each.failures[asked++] : vectors_for(request);
    });
    Embedding embedding(server);
    const std::string failure = embedding.embed();
    EXPECT_THAT(failure, HasSubstr(each.says)) << each.why;
    EXPECT_EQ(failure.empty(), *each.says == '\0') << each.why << ": " << failure;
    EXPECT_EQ(embedding.waits, each.waits) << each.why;
  }
}

TEST(HttpEmbedder, SendsTheKeyToItsServiceAlone) {
  HttpServer server([](const auto&) { return HttpServer::status("403 No"); });
  setenv("OSSILAR_TEST_KEY", "sesame", 1);
  const std::string refused = Embedding(server, {.key_variable = "OSSILAR_TEST_KEY"}).embed();
  EXPECT_THAT(server.requests().at(0).head, HasSubstr("Authorization: Bearer sesame"));
  EXPECT_THAT(refused, AllOf(HasSubstr("OSSILAR_TEST_KEY"), Not(HasSubstr("sesame"))));
  for (const char* url : {"http://host.invalid/v1", "http://127.host.invalid/v1"}) {
    EXPECT_THAT(Embedding(server, {.url = url, .key_variable = "OSSILAR_TEST_KEY"}).embed(),
                HasSubstr("without encryption"));
  }
  setenv("OSSILAR_TEST_KEY", "open\r\nX-Other: sesame", 1);
  EXPECT_THAT(Embedding(server, {.key_variable = "OSSILAR_TEST_KEY"}).embed(),
              AllOf(HasSubstr("white space"), Not(HasSubstr("sesame"))));
  unsetenv("OSSILAR_TEST_KEY");
  EXPECT_THAT(Embedding(server, {.key_variable = "OSSILAR_TEST_KEY"}).embed(), HasSubstr("OSSILAR_TEST_KEY"));
  EXPECT_EQ(server.requests().size(), 1U);
}

// An answer may quote the key in part or in another spelling, which no filter would find.
TEST(HttpEmbedder, ErrorsQuoteNoAnswerWhileAKeyIsInUse) {
  struct Case {
    std::string answer;
    const char* says;
  };
  const std::string part = "Bearer open-sesa";
  setenv("OSSILAR_TEST_KEY", "open-sesame", 1);
  for (const Case& each :
       {Case{HttpServer::status("400 " + part, part), "status 400"},
        Case{HttpServer::status("500 No", part), "status 500"}, Case{HttpServer::ok(part), "not JSON"},
        Case{HttpServer::ok("{\"data\": \"" + part), "not JSON"},
        Case{HttpServer::ok("{\"open-sesa\": 1e999}"), "not JSON"}}) {
    const HttpServer server([&](const auto&) { return each.answer; });
    EXPECT_THAT(Embedding(server, {.key_variable = "OSSILAR_TEST_KEY"}).embed(),
                AllOf(HasSubstr(each.says), HasSubstr("OSSILAR_TEST_KEY"), Not(HasSubstr("sesa")),
                      Not(HasSubstr("1e999"))));
  }
  unsetenv("OSSILAR_TEST_KEY");
}

TEST(HttpEmbedder, LoopbackAddressesAreRecognised) {
  for (const char* host : {"localhost", "LocalHost", "api.localhost", "127.0.0.1", "127.9.9.9", "127.1",
                           "[::1]", "[0:0:0:0:0:0:0:1]"})
    EXPECT_TRUE(parse_address(std::string("http://") + host + ":80/v1").is_loopback()) << host;
  for (const char* host : {"notlocalhost", "localhost.org", "128.0.0.1", "127.0.0.1.org", "127.0.0.1.5",
                           "[::2]", "[fe80::1]", "host"})
    EXPECT_FALSE(parse_address(std::string("http://") + host + ":80/v1").is_loopback()) << host;
}

// Whatever the environment says: without encryption a proxy would see the key.
TEST(HttpEmbedder, AProxyIsUsedForOtherMachinesOnly) {
  const HttpServer proxy(vectors_for);
  const HttpServer server(vectors_for);
  const std::string port = server.url("").substr(server.url("").rfind(':'));
  setenv("OSSILAR_TEST_KEY", "sesame", 1);
  for (const char* variable : {"http_proxy", "all_proxy", "ALL_PROXY"}) {
    setenv(variable, proxy.url("").c_str(), 1);
    for (const char* host : {"127.0.0.1", "localhost", "LOCALHOST", "api.localhost", "127.0.0.2", "[::1]"})
      Embedding(server, {.url = "http://" + (host + port), .key_variable = "OSSILAR_TEST_KEY"}).embed();
    EXPECT_EQ(proxy.requests().size(), 0U) << variable;
    unsetenv(variable);
  }
  EXPECT_GE(server.requests().size(), 12U);
  setenv("http_proxy", proxy.url("").c_str(), 1);
  EXPECT_EQ(Embedding(server, {.url = "http://host.invalid/v1"}).embed(), "");
  EXPECT_EQ(proxy.requests().size(), 1U);
  unsetenv("http_proxy");
  unsetenv("OSSILAR_TEST_KEY");
}

TEST(HttpEmbedder, EndsWhenItsTaskIsCancelledInATransfer) {
  utils::Task task;
  std::promise<void> ended;
  const HttpServer server([&](const auto&) {
    task.cancel();
    ended.get_future().wait();  // no answer before the embedder gave up
    return std::string();
  });
  EXPECT_THROW(make_http_embedder({.url = server.url(), .model = "m"})->embed({"a"}, task), utils::Cancelled);
  ended.set_value();
}

TEST(HttpEmbedder, EndsWhenItsTaskIsCancelledInAWait) {
  utils::Task task;
  const HttpServer server([](const auto&) { return HttpServer::status("503 Busy"); });
  const auto cancel = [&](milliseconds, const utils::Task&) { task.cancel(); };
  const auto embedder = make_http_embedder({.url = server.url(), .model = "m", .wait = cancel});
  EXPECT_THROW(embedder->embed({"a"}, task), utils::Cancelled);
  EXPECT_EQ(server.requests().size(), 1U);
}

TEST(HttpEmbedder, ServesSeveralThreads) {
  const HttpServer server(vectors_for);
  const auto embedder = make_http_embedder({.url = server.url(), .model = "m"});
  std::atomic<int> right = 0;
  testing::in_threads(8, [&](std::size_t i) {
    const std::string text(i, 'x');
    const auto length = static_cast<double>(i);
    const auto expected = static_cast<float>(length / std::sqrt(length * length + 1.0));
    if (embedder->embed({text, text}, {})[1][0] == expected) ++right;
  });
  EXPECT_EQ(right, 8);
}

}  // namespace
}  // namespace ossilar::search
