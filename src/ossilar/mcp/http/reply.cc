#include "ossilar/mcp/http/reply.h"

#include <atomic>

#include "ossilar/mcp/protocol/message.h"
#include "ossilar/utils/microhttpd.h"

namespace ossilar::mcp::http {
namespace {

// What the library asks for at once; more would only be copied in larger pieces.
constexpr std::size_t kBlock = 4096;

using utils::OwnedResponse;

// A stream of events on its way to a connection.
struct Reader {
  Sleepers* sleepers;
  MHD_Connection* connection;
  Streamed streamed;
  std::uint64_t ticket = 0;
  std::atomic<bool> is_gone = false;

  static ssize_t read(void* self, std::uint64_t /*position*/, char* buffer, std::size_t size) {
    auto& reader = *static_cast<Reader*>(self);
    if (reader.is_gone) return MHD_CONTENT_READER_END_WITH_ERROR;
    std::size_t taken = 0;
    const auto result = reader.streamed.stream->read(reader.ticket, buffer, size, taken, [&] {
      reader.sleepers->sleep(reader.connection, reader.is_gone, reader.streamed.alone);
    });
    if (result == EventStream::Read::end) return MHD_CONTENT_READER_END_OF_STREAM;
    return static_cast<ssize_t>(taken);
  }
  static void free(void* self) {
    const std::unique_ptr<Reader> reader(static_cast<Reader*>(self));
    reader->streamed.stream->detach(reader->ticket);
  }
};

MHD_Result queue(MHD_Connection* connection, int status, const OwnedResponse& response,
                 const Headers& headers) {
  MHD_add_response_header(response.get(), "Cache-Control", "no-store");
  for (const auto& [name, value] : headers) MHD_add_response_header(response.get(), name, value.c_str());
  return MHD_queue_response(connection, static_cast<unsigned>(status), response.get());
}

}  // namespace

Head head_of(MHD_Connection* connection, const char* url, const char* method) {
  const auto header = [&](const char* name) { return utils::value_of(connection, MHD_HEADER_KIND, name); };
  return {.method = method,
          .path = url,
          .host = header("Host"),
          .origin = header("Origin"),
          .authorization = header("Authorization"),
          .content_type = header("Content-Type"),
          .accept = header("Accept"),
          .protocol_version = header("MCP-Protocol-Version"),
          .session_id = header("Mcp-Session-Id"),
          .mcp_method = header("Mcp-Method"),
          .mcp_name = header("Mcp-Name"),
          .last_event_id = header("Last-Event-ID")};
}

MHD_Result send(MHD_Connection* connection, int status, std::string body, const char* type,
                const Headers& headers) {
  const OwnedResponse response(
      MHD_create_response_from_buffer(body.size(), body.data(), MHD_RESPMEM_MUST_COPY));
  if (!response) return MHD_NO;
  if (!body.empty()) MHD_add_response_header(response.get(), "Content-Type", type);
  MHD_add_response_header(response.get(), "X-Content-Type-Options", "nosniff");
  return queue(connection, status, response, headers);
}

MHD_Result send_refusal(MHD_Connection* connection, const Refusal& refusal) {
  Headers headers;
  if (refusal.status == 401) headers.emplace_back("WWW-Authenticate", "Bearer realm=\"ossilar\"");
  if (refusal.status == 405) headers.emplace_back("Allow", "POST, GET, DELETE");
  if (refusal.status == 503) headers.emplace_back("Retry-After", "1");
  return send(connection, refusal.status, error_line({}, error_code::kInvalidRequest, refusal.message),
              "application/json", headers);
}

MHD_Result send_events(MHD_Connection* connection, Sleepers& sleepers, Streamed streamed,
                       const Headers& headers) {
  auto reader = std::make_unique<Reader>();
  reader->sleepers = &sleepers;
  reader->connection = connection;
  reader->streamed = std::move(streamed);
  EventStream& stream = *reader->streamed.stream;
  reader->ticket =
      stream.attach(reader->streamed.after, [&sleepers, connection] { sleepers.wake(connection); });
  const OwnedResponse response(MHD_create_response_from_callback(MHD_SIZE_UNKNOWN, kBlock, &Reader::read,
                                                                 reader.get(), &Reader::free));
  if (!response) {
    stream.detach(reader->ticket);
    return MHD_NO;
  }
  static_cast<void>(reader.release());  // the response frees it
  MHD_add_response_header(response.get(), "Content-Type", "text/event-stream");
  // A proxy must pass events on at once.
  MHD_add_response_header(response.get(), "X-Accel-Buffering", "no");
  return queue(connection, 200, response, headers);
}

}  // namespace ossilar::mcp::http
