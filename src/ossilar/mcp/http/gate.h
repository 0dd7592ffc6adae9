// What is decided of an HTTP request by its headers alone, before its body is read. Apart from sockets and
// threads, so that every malformed request is a row of a test.
//
// Thread-safety: no state; any thread may call these. None fails for what is in a request.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace ossilar::mcp::http {

inline constexpr std::string_view kEndpoint = "/mcp";

// The headers of a request that matter; "" for one that is missing.
struct Head {
  std::string method = {};
  std::string path = {};  // as sent, without the query
  std::string host = {};
  std::string origin = {};
  std::string authorization = {};
  std::string content_type = {};
  std::string accept = {};
  std::string protocol_version = {};  // MCP-Protocol-Version
  std::string session_id = {};        // Mcp-Session-Id
  std::string mcp_method = {};        // Mcp-Method and Mcp-Name repeat what the body says, for those between
  std::string mcp_name = {};
  std::string last_event_id = {};
};

// Who gets in.
struct Gate {
  std::uint16_t port = 0;
  // Whether the server listens on this machine alone. Then Host must name it: a page of another site can make
  // a name of its own lead here. On any other address a proxy may stand before us, under any name, and the
  // token keeps such pages out.
  bool is_loopback = true;
  std::string token = {};  // "" for none
};

struct Refusal {
  int status = 400;
  std::string message = {};
};

// Why the request is refused, none if its body is to be read. The token comes first: without it nothing is
// told, not even which paths there are. Only /healthz, which tells nothing, is open.
std::optional<Refusal> refuse(const Gate& gate, const Head& head);

// Whether both are equal, in a time that depends on the length of `given` alone.
bool is_same_secret(std::string_view given, std::string_view secret);

// Whether the header is that of a page of this server's own, or of a program, which sends none.
bool is_own_origin(std::string_view origin, std::string_view host);

// Whether a list of media types, as in Accept, admits `type` ("text/event-stream").
bool accepts(std::string_view accept, std::string_view type);

}  // namespace ossilar::mcp::http
