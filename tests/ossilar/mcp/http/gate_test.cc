#include "ossilar/mcp/http/gate.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ossilar/mcp/http/call.h"

namespace ossilar::mcp::http {
namespace {

constexpr const char* kBoth = "application/json, text/event-stream";

Head post() {
  return {.method = "POST",
          .path = "/mcp",
          .host = "127.0.0.1:8765",
          .content_type = "application/json",
          .accept = kBoth};
}

TEST(GateTest, TheHeadersDecideWhoGetsIn) {
  struct Row {
    const char* why;
    void (*change)(Head& head);
    int status;  // 0: it gets in
  };
  const Row kRows[] = {
      {"as it should be", [](Head&) {}, 0},
      {"with parameters and capitals", [](Head& h) { h.content_type = "Application/JSON; charset=utf-8"; },
       0},
      {"the name of this machine", [](Head& h) { h.host = "LOCALHOST:8765"; }, 0},
      {"any type", [](Head& h) { h.accept = "*/*;q=0.1"; }, 0},
      {"its own page", [](Head& h) { h.origin = "http://127.0.0.1:8765"; }, 0},
      {"a known revision", [](Head& h) { h.protocol_version = "2025-06-18"; }, 0},
      {"another's name that leads here", [](Head& h) { h.host = "evil.example:8765"; }, 403},
      {"another port", [](Head& h) { h.host = "127.0.0.1:80"; }, 403},
      {"no host", [](Head& h) { h.host = ""; }, 403},
      {"another's page", [](Head& h) { h.origin = "http://evil.example"; }, 403},
      {"a page of another port", [](Head& h) { h.origin = "http://127.0.0.1:8411"; }, 403},
      {"a page from a file", [](Head& h) { h.origin = "null"; }, 403},
      {"an origin that only begins so", [](Head& h) { h.origin = "http://127.0.0.1:8765.evil.example"; },
       403},
      {"another path", [](Head& h) { h.path = "/mcp/"; }, 404},
      {"another method", [](Head& h) { h.method = "PUT"; }, 405},
      {"a method in small letters", [](Head& h) { h.method = "post"; }, 405},
      {"another type", [](Head& h) { h.content_type = "text/plain"; }, 415},
      {"a type that only begins so", [](Head& h) { h.content_type = "application/jsonp"; }, 415},
      {"no type", [](Head& h) { h.content_type = ""; }, 415},
      {"no events", [](Head& h) { h.accept = "application/json"; }, 406},
      {"no documents", [](Head& h) { h.accept = "text/event-stream"; }, 406},
      {"nothing", [](Head& h) { h.accept = ""; }, 406},
      {"an unknown revision", [](Head& h) { h.protocol_version = "1999-01-01"; }, 400},
      {"a stream", [](Head& h) { h.method = "GET", h.accept = "text/event-stream"; }, 0},
      {"a stream without events", [](Head& h) { h.method = "GET", h.accept = "text/html"; }, 406},
      {"the end", [](Head& h) { h.method = "DELETE", h.accept = "", h.content_type = ""; }, 0},
      {"the health of any name", [](Head& h) { h = {.method = "GET", .path = "/healthz", .host = "x"}; }, 0},
      {"the metrics of any name", [](Head& h) { h = {.method = "GET", .path = "/metrics", .host = "x"}; },
       403},
  };
  const Gate gate{.port = 8765};
  for (const Row& row : kRows) {
    Head head = post();
    row.change(head);
    const auto refusal = refuse(gate, head);
    EXPECT_EQ(refusal ? refusal->status : 0, row.status) << row.why;
  }
}

TEST(GateTest, WithoutTheTokenNothingIsTold) {
  const Gate gate{.port = 8765, .is_loopback = false, .token = "0123456789abcdef"};
  for (const char* path : {"/mcp", "/metrics", "/nothing"}) {
    for (const char* given : {"", "Bearer", "Bearer ", "Bearer 0123456789abcde", "Bearer 0123456789abcdef0",
                              "Bearer 0123456789ABCDEF", "0123456789abcdef", "Basic 0123456789abcdef"}) {
      Head head = post();
      head.path = path;
      head.authorization = given;
      const auto refusal = refuse(gate, head);
      ASSERT_TRUE(refusal) << path << given;
      EXPECT_EQ(refusal->status, 401) << path << given;
    }
  }
  Head head = post();
  head.authorization = "bearer  0123456789abcdef ";
  head.host = "wiki.example.org";  // a proxy's
  EXPECT_FALSE(refuse(gate, head));
  head.origin = "https://wiki.example.org";
  EXPECT_FALSE(refuse(gate, head));
  head.origin = "https://other.example.org";
  EXPECT_EQ(refuse(gate, head)->status, 403);
  EXPECT_FALSE(is_same_secret("", "")) << "no token is no token that fits";
}

TEST(CallTest, TheFirstRequestTellsWhatItBelongsTo) {
  const std::string modern = R"("_meta": {"io.modelcontextprotocol/protocolVersion": "2026-07-28"})";
  const struct {
    std::string body;
    const char* version;
    Kind kind;
    bool is_answered;
  } kRows[] = {
      {R"({"jsonrpc": "2.0", "id": 1, "method": "initialize"})", "", Kind::begins, true},
      {R"({"jsonrpc": "2.0", "method": "initialize"})", "", Kind::belongs, false},
      {R"([{"jsonrpc": "2.0", "id": 1, "method": "initialize"}])", "", Kind::belongs, true},
      {R"({"jsonrpc": "2.0", "id": 1, "method": "ping"})", "2025-06-18", Kind::belongs, true},
      {R"({"jsonrpc": "2.0", "id": 1, "method": "ping", "params": {)" + modern + "}}", "", Kind::stands_alone,
       true},
      {R"({"jsonrpc": "2.0", "method": "notifications/cancelled"})", "2026-07-28", Kind::stands_alone, false},
      {R"({"jsonrpc": "2.0", "id": 1, "result": {}})", "2025-06-18", Kind::belongs, false},
      {R"([{"jsonrpc": "2.0", "id": 1, "result": {}}, {"jsonrpc": "2.0", "method": "x"}])", "", Kind::belongs,
       false},
      {"[]", "", Kind::belongs, true},
      {"{", "", Kind::belongs, true},
      {"", "2026-07-28", Kind::stands_alone, true},
  };
  for (const auto& row : kRows) {
    const LineContent content = read_line(row.body);
    EXPECT_EQ(kind_of(content, {.protocol_version = row.version}), row.kind) << row.body;
    EXPECT_EQ(wants_answer(content), row.is_answered) << row.body;
  }
}

TEST(CallTest, AnErrorHasTheStatusThatItsRevisionGivesIt) {
  const auto error = [](const char* id, int code) {
    return R"({"jsonrpc":"2.0",)" + std::string(id) + R"("error":{"code":)" + std::to_string(code) + "}}";
  };
  EXPECT_EQ(status_of(error(R"("id":1,)", -32601), Kind::belongs), 200);
  EXPECT_EQ(status_of(error("", -32700), Kind::belongs), 400);
  EXPECT_EQ(status_of(error(R"("id":1,)", -32601), Kind::stands_alone), 404);
  EXPECT_EQ(status_of(error(R"("id":1,)", -32022), Kind::stands_alone), 400);
  EXPECT_EQ(status_of(error(R"("id":1,)", -32602), Kind::stands_alone), 200);
  EXPECT_EQ(status_of(R"({"jsonrpc":"2.0","id":1,"result":{"error":{}}})", Kind::stands_alone), 200);
  EXPECT_EQ(status_of("[" + error("", -32700) + "]", Kind::belongs), 200);
}

}  // namespace
}  // namespace ossilar::mcp::http
