// A thousand requests of a seeded table with malformed headers, sessions, origins and bodies, over real
// sockets: the server answers on, and tells those without its token nothing.
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <random>
#include <string>
#include <vector>

#include "ossilar/mcp/http/server.h"
#include "ossilar/utils/files.h"
#include "support/wiki_repo.h"

namespace ossilar::mcp::http {
namespace {

using ::testing::AnyOf;
using ::testing::ContainsRegex;
using ::testing::HasSubstr;
using ::testing::StartsWith;

constexpr const char* kToken = "0123456789abcdef";

// What the server answers to these bytes until it ends the connection; of a stream its beginning.
std::string answer_to(std::uint16_t port, const std::string& sent, bool is_cut = false) {
  const utils::UniqueFd client(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(port);
  if (connect(client.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
    return "no connection";
  // What the server does not take any more is dropped: it may have answered and ended the connection.
  static_cast<void>(send(client.get(), sent.data(), sent.size(), MSG_NOSIGNAL));
  if (is_cut) return "";
  std::string answer;
  for (;;) {
    pollfd waiting{client.get(), POLLIN, 0};
    if (poll(&waiting, 1, 20'000) <= 0) return "no end";
    char buffer[4096];
    const ssize_t size = recv(client.get(), buffer, sizeof buffer, 0);
    if (size <= 0) return answer;
    answer.append(buffer, static_cast<std::size_t>(size));
    const bool is_stream = answer.find("text/event-stream\r\n") != std::string::npos;
    if (is_stream && answer.find("\r\n\r\n") != std::string::npos) return answer;  // it may never end
  }
}

struct Sent {
  std::string bytes;
  bool has_token = false;
  bool is_health = false;
  bool is_cut = false;  // the server waits for the rest of its body
};

// Makes requests, each part of which is right or wrong by chance.
class Dice {
 public:
  explicit Dice(unsigned seed) : random_(seed) {}

  Sent request(const std::string& session) {
    Sent sent;
    const std::string path = pick({"/mcp",    "/mcp",    "/mcp",     "/mcp",     "/mcp",
                                   "/mcp",    "/mcp",    "/mcp",     "/metrics", "/healthz",
                                   "/",       "/mcp/",   "/mcp?a=b", "//mcp",    "/%6dcp",
                                   "/mcp%00", "/../mcp", "",         "*",        std::string(5000, 'a')});
    const std::string method = pick({"POST", "POST", "POST", "POST", "POST", "POST", "POST", "POST", "GET",
                                     "DELETE", "PUT", "HEAD", "OPTIONS", "post", "P\tT", ""});
    sent.is_health = path == "/healthz" && (method == "GET" || method == "HEAD");
    const std::string body = pick(bodies());
    const std::string token =
        pick({kToken, kToken, kToken, "wrong", "", std::string(kToken) + "x", std::string(9000, 'x')});
    sent.has_token = token == kToken;
    sent.bytes =
        method + " " + path + " " +
        pick({"HTTP/1.1", "HTTP/1.1", "HTTP/1.1", "HTTP/1.1", "HTTP/1.1", "HTTP/1.0", "HTTP/9", ""}) +
        "\r\nConnection: close\r\nAuthorization: Bearer " + token + "\r\n";
    add(sent, "Host", {"127.0.0.1", "localhost", "evil.example", "", std::string(3000, 'h'), "\xff"});
    add(sent, "Origin", {"http://127.0.0.1", "null", "http://evil.example", "", "http://", "\x01"});
    add(sent, "Content-Type", {"application/json", "application/json", "text/plain", ";;;", "\xff\xfe"});
    add(sent, "Accept",
        {"application/json, text/event-stream", "*/*", "", ",,,,", "text/event-stream", "a/b;q=x"});
    add(sent, "MCP-Protocol-Version", {"2025-11-25", "2026-07-28", "2024-11-05", "1999-01-01", "x", ""});
    add(sent, "Mcp-Session-Id", {session, session, "wrong", "", std::string(2000, '0'), "../x", "\xff"});
    add(sent, "Mcp-Method", {"tools/call", "tools/list", "", "=?base64?!!?="});
    add(sent, "Mcp-Name",
        {"wiki_status", "=?base64?d2lraV9zdGF0dXM=?=",
         "=?base64?"
         "?=",
         "=?base64?*?="});
    add(sent, "Last-Event-ID", {"0-1", "1-1", "99-1", "-", "99999999999999999999-1", "x"});
    add(sent, "X\x01Y", {"z"}, 40);
    if (one_of(25)) sent.bytes += "broken line\r\n";
    const bool is_chunked = one_of(20);
    if (is_chunked) sent.bytes += "Transfer-Encoding: chunked\r\n";
    const std::string length = std::to_string(body.size());
    const std::string more = std::to_string(body.size() + 10);
    const std::string said = one_of(8) ? pick({"0", "-1", "x", "99999999999999999999", more}) : length;
    sent.is_cut = said == more || is_chunked;
    sent.bytes += "Content-Length: " + said + "\r\n\r\n" + body;
    return sent;
  }

 private:
  static std::vector<std::string> bodies() {
    const std::string meta =
        R"("_meta":{"io.modelcontextprotocol/protocolVersion":"2026-07-28","io.modelcontextprotocol/clientCapabilities":{}})";
    return {R"({"jsonrpc":"2.0","id":1,"method":"initialize","params":{"protocolVersion":"2025-11-25"}})",
            R"({"jsonrpc":"2.0","id":1,"method":"initialize","params":{"protocolVersion":7}})",
            R"({"jsonrpc":"2.0","id":2,"method":"tools/call","params":{"name":"wiki_status"}})",
            R"({"jsonrpc":"2.0","id":2,"method":"tools/call","params":{"name":"wiki_status",)" + meta + "}}",
            R"({"jsonrpc":"2.0","id":2,"method":"subscriptions/listen","params":{"notifications":{},)" +
                meta + "}}",
            R"({"jsonrpc":"2.0","id":3,"method":"tools/call","params":{"name":"nope","arguments":[]}})",
            R"([{"jsonrpc":"2.0","id":4,"method":"ping"},{"jsonrpc":"2.0","method":"x"},7])",
            R"({"jsonrpc":"2.0","method":"notifications/cancelled","params":{"requestId":2}})",
            R"({"jsonrpc":"2.0","id":{"a":1},"method":"ping"})",
            R"({"jsonrpc":"2.0","id":5,"result":{}})",
            "",
            "{",
            "[]",
            "null",
            "\"id\"",
            std::string(100'000, '['),
            "{\"id\":\"\xff\"}",
            std::string("\0\0\0", 3),
            R"({"jsonrpc":"2.0","id":6,"method":")" + std::string(200'000, 'm') + "\"}"};
  }
  // Most headers are there and right, or nothing would come through.
  void add(Sent& sent, const std::string& name, const std::vector<std::string>& values, unsigned seldom = 1) {
    if (one_of(seldom == 1 ? 32 : seldom) != (seldom != 1)) return;
    const std::string value = one_of(12) ? pick(values) : values.front();
    sent.bytes += name + ": " + value;
    if (name == "Host" && (value == "127.0.0.1" || value == "localhost")) sent.bytes += port_;
    if (name == "Origin" && value == "http://127.0.0.1") sent.bytes += port_;
    sent.bytes += "\r\n";
    if (one_of(30)) sent.bytes += name + ": " + pick(values) + "\r\n";  // twice
  }
  std::string pick(const std::vector<std::string>& values) { return values[random_() % values.size()]; }
  bool one_of(unsigned many) { return random_() % many == 0; }

  std::mt19937 random_;

 public:
  std::string port_;
};

TEST(HostileTest, AThousandMalformedRequestsGetNothingWithoutTheToken) {
  const testing::WikiRepo repo;
  Server server({.root = repo.dir.path(), .listening = parse_listening("0"), .token = kToken, .log = {}});
  const std::string url = server.url();
  const auto port = static_cast<std::uint16_t>(std::stoi(url.substr(url.rfind(':') + 1)));
  const std::string here = "127.0.0.1:" + std::to_string(port);
  const std::string initialize =
      R"({"jsonrpc":"2.0","id":1,"method":"initialize","params":{"protocolVersion":"2025-11-25"}})";
  const std::string right = "POST /mcp HTTP/1.1\r\nHost: " + here +
                            "\r\nConnection: close\r\nAuthorization: Bearer " + kToken +
                            "\r\nContent-Type: application/json\r\nAccept: application/json, "
                            "text/event-stream\r\nContent-Length: " +
                            std::to_string(initialize.size()) + "\r\n\r\n" + initialize;
  const auto begin_session = [&] {
    const std::string begun = answer_to(port, right);
    EXPECT_THAT(begun, StartsWith("HTTP/1.1 200"));
    const std::size_t id = begun.find("Mcp-Session-Id: ");
    return id == std::string::npos ? "" : begun.substr(id + 16, 32);
  };
  std::string session = begin_session();

  Dice dice(20261125);
  dice.port_ = ":" + std::to_string(port);
  int admitted = 0;
  for (int i = 0; i < 1000; ++i) {
    const Sent sent = dice.request(session);
    const std::string answer = answer_to(port, sent.bytes, sent.is_cut);
    ASSERT_NE(answer, "no connection") << i;
    ASSERT_NE(answer, "no end") << i << "\n" << sent.bytes.substr(0, 2000);
    if (answer.starts_with("HTTP/1.1 204")) session = begin_session();  // it was ended
    admitted += answer.starts_with("HTTP/1.1 2") ? 1 : 0;
    if (sent.has_token || sent.is_health) continue;
    // The library itself refuses what is no HTTP: with a status of its own, or by ending the connection.
    EXPECT_THAT(answer, AnyOf("", ContainsRegex("^HTTP/1\\.. [45]"))) << i << "\n"
                                                                      << sent.bytes.substr(0, 2000);
  }
  EXPECT_GT(admitted, 30) << "some of them are right, or nothing behind the gate was tried";
  EXPECT_THAT(answer_to(port, right), HasSubstr("\"serverInfo\"")) << "it serves on";
}

}  // namespace
}  // namespace ossilar::mcp::http
