// What goes to and fro over a connection, in the library's terms.
//
// Thread-safety: the library's thread that has called us for this connection.
#pragma once

#include <microhttpd.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "ossilar/mcp/http/clients.h"
#include "ossilar/mcp/http/event_stream.h"
#include "ossilar/mcp/http/gate.h"
#include "ossilar/mcp/http/sleepers.h"

namespace ossilar::mcp::http {

Head head_of(MHD_Connection* connection, const char* url, const char* method);

using Headers = std::vector<std::pair<const char*, std::string>>;

// Each gives what the library's callback has to return.
MHD_Result send(MHD_Connection* connection, int status, std::string body, const char* type,
                const Headers& headers = {});
// As a JSON-RPC error without an id: clients show its message.
MHD_Result send_refusal(MHD_Connection* connection, const Refusal& refusal);

// A stream to be sent, and what must live as long.
struct Streamed {
  std::shared_ptr<EventStream> stream;
  std::optional<std::uint64_t> after;  // see EventStream::attach()
  std::shared_ptr<Client> client;      // null for a request that stands alone
  std::shared_ptr<Session> alone;      // its session, null for any other
};
// Sends events as they come, until the stream is at its end. The connection sleeps in between.
MHD_Result send_events(MHD_Connection* connection, Sleepers& sleepers, Streamed streamed,
                       const Headers& headers = {});

}  // namespace ossilar::mcp::http
