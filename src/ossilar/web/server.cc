// The library parses requests and calls back on one of its threads; routes.h answers. Events go to the
// streams that are open: a stream without news is suspended, and resumed by the thread that has some.
#include "ossilar/web/server.h"

#include <arpa/inet.h>
#include <microhttpd.h>
#include <netinet/in.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <set>

#include "ossilar/utils/error.h"
#include "ossilar/utils/logging.h"
#include "ossilar/utils/microhttpd.h"
#include "ossilar/web/live_site.h"
#include "ossilar/web/routes.h"

namespace ossilar::web {
namespace {

const utils::Logger logger("ossilar.web.server");

constexpr unsigned kThreads = 4;
constexpr unsigned kMostConnections = 256;
constexpr std::size_t kConnectionMemory = std::size_t{32} * 1024;  // request line and headers
constexpr unsigned kIdleSeconds = 15;
// Browsers allow six connections to a server, so these are some ten open browsers.
constexpr std::size_t kMostStreams = 64;
constexpr std::chrono::milliseconds kLook{500};
constexpr int kLooksToBeat = 30;  // a beat each 15 seconds finds out who is gone

// The event streams of browsers that are open.
//
// Thread-safety: every member may be called from any thread.
class EventStreams {
 public:
  ~EventStreams() { close(); }

  // The response that streams to the connection, or null when there are too many.
  MHD_Response* open(MHD_Connection* connection) {
    const std::lock_guard lock(mutex_);
    if (is_closed_ || streams_.size() >= kMostStreams) return nullptr;
    auto stream = std::make_unique<Stream>();
    stream->owner = this;
    stream->connection = connection;
    // At once, so that the browser knows that it is connected.
    stream->waiting = "retry: 1000\n\n: connected\n\n";
    MHD_Response* response = MHD_create_response_from_callback(MHD_SIZE_UNKNOWN, 1024, &EventStreams::read,
                                                               stream.get(), &EventStreams::release);
    if (response != nullptr) streams_.insert(stream.release());
    return response;
  }

  void send(const std::string& text) {
    const std::lock_guard lock(mutex_);
    for (Stream* stream : streams_) {
      // A browser that reads nothing hears only that something changed, which is all there is to say.
      if (stream->waiting.size() < kMostWaiting) stream->waiting += text;
      resume(*stream);
    }
  }

  // Ends all streams; to be called before the server is stopped, which waits for them.
  void close() {
    const std::lock_guard lock(mutex_);
    is_closed_ = true;
    for (Stream* stream : streams_) resume(*stream);
  }

 private:
  static constexpr std::size_t kMostWaiting = 4096;

  struct Stream {
    EventStreams* owner = nullptr;
    MHD_Connection* connection = nullptr;
    std::string waiting;
    bool is_suspended = false;
  };

  static void resume(Stream& stream) {
    if (std::exchange(stream.is_suspended, false)) MHD_resume_connection(stream.connection);
  }

  static ssize_t read(void* self, std::uint64_t /*position*/, char* buffer, std::size_t size) {
    auto& stream = *static_cast<Stream*>(self);
    const std::lock_guard lock(stream.owner->mutex_);
    if (stream.owner->is_closed_) return MHD_CONTENT_READER_END_OF_STREAM;
    if (stream.waiting.empty()) {
      stream.is_suspended = true;
      MHD_suspend_connection(stream.connection);
      return 0;
    }
    const std::size_t taken = std::min(size, stream.waiting.size());
    std::copy_n(stream.waiting.data(), taken, buffer);
    stream.waiting.erase(0, taken);
    return static_cast<ssize_t>(taken);
  }

  static void release(void* self) {
    auto* stream = static_cast<Stream*>(self);
    {
      const std::lock_guard lock(stream->owner->mutex_);
      stream->owner->streams_.erase(stream);
    }
    delete stream;
  }

  std::mutex mutex_;
  std::set<Stream*> streams_;  // each owned by its response; guarded by mutex_, as is the next
  bool is_closed_ = false;
};

// Leaves paths and values as they were sent: the library would end them at an encoded NUL byte.
std::size_t keep_encoded(void* /*self*/, MHD_Connection* /*connection*/, char* text) {
  return std::strlen(text);
}

Request request_of(MHD_Connection* connection, const char* url, const char* method) {
  const auto header = [&](const char* name) { return utils::value_of(connection, MHD_HEADER_KIND, name); };
  return {.method = method,
          .path = url,
          .query = utils::value_of(connection, MHD_GET_ARGUMENT_KIND, "q"),
          .host = header("Host"),
          .if_none_match = header("If-None-Match")};
}

using utils::OwnedResponse;

}  // namespace

class Server::Impl {
 public:
  explicit Impl(const ServerOptions& options)
      : provider_(options.root, "ossilar serve"),
        live_(
            provider_, kLook, [this] { streams_.send("event: changed\ndata: {}\n\n"); }, [this] { beat(); }) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(options.port);
    errno = 0;
    daemon_ =
        MHD_start_daemon(MHD_USE_EPOLL_INTERNAL_THREAD | MHD_ALLOW_SUSPEND_RESUME, 0, nullptr, nullptr,
                         &Impl::handle, this, MHD_OPTION_SOCK_ADDR, &address, MHD_OPTION_THREAD_POOL_SIZE,
                         kThreads, MHD_OPTION_CONNECTION_LIMIT, kMostConnections,
                         MHD_OPTION_CONNECTION_MEMORY_LIMIT, kConnectionMemory, MHD_OPTION_CONNECTION_TIMEOUT,
                         kIdleSeconds, MHD_OPTION_UNESCAPE_CALLBACK, &keep_encoded, nullptr, MHD_OPTION_END);
    const std::string place = "port " + std::to_string(options.port);
    if (daemon_ == nullptr && errno == EADDRINUSE)
      throw utils::ConfigError(place + " is in use; choose another with --port, or --port 0 for any");
    if (daemon_ == nullptr && errno == EACCES)
      throw utils::ConfigError(place + " may not be used; choose another with --port");
    if (daemon_ == nullptr) throw utils::IoError("cannot serve on " + place, errno);
    port_ = MHD_get_daemon_info(daemon_, MHD_DAEMON_INFO_BIND_PORT)->port;
  }

  // In this order: no stream is suspended any more when the server stops, and no event comes after it.
  ~Impl() {
    streams_.close();
    MHD_stop_daemon(daemon_);
  }

  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  std::uint16_t port() const { return port_; }

 private:
  void beat() {
    if (++looks_ % kLooksToBeat == 0) streams_.send(": still here\n\n");
  }

  static MHD_Result handle(void* self, MHD_Connection* connection, const char* url, const char* method,
                           const char* /*version*/, const char* /*body*/, std::size_t* /*body_size*/,
                           void** state) {
    Request request = request_of(connection, url, method);
    // An answer at the first call ends the connection, without a look at what is still to come: right for a
    // request with a body, which is refused anyway. Any other is answered at the second call.
    const bool is_first = std::exchange(*state, self) == nullptr;
    if (is_first && !has_body(connection) && (request.method == "GET" || request.method == "HEAD"))
      return MHD_YES;
    return static_cast<Impl*>(self)->answer(connection, request);
  }

  static bool has_body(MHD_Connection* connection) {
    const std::string length = utils::value_of(connection, MHD_HEADER_KIND, MHD_HTTP_HEADER_CONTENT_LENGTH);
    return (!length.empty() && length != "0") ||
           MHD_lookup_connection_value(connection, MHD_HEADER_KIND, MHD_HTTP_HEADER_TRANSFER_ENCODING) !=
               nullptr;
  }

  MHD_Result answer(MHD_Connection* connection, const Request& request) {
    Response response;
    try {
      const utils::Task task;
      response = respond(request, *live_.site(), port_, task);
    } catch (const std::exception& error) {
      logger.warning("cannot answer " + request.path, error);
      response = plain_response(500, std::string("This failed: ") + error.what());
    }
    OwnedResponse made;
    if (response.is_event_stream && request.method == "GET") {
      made.reset(streams_.open(connection));
      if (!made) response = plain_response(503, "Too many pages are open.");
    }
    if (!made) {
      made.reset(
          MHD_create_response_from_buffer(response.body.size(), response.body.data(), MHD_RESPMEM_MUST_COPY));
    }
    if (!made) return MHD_NO;
    for (const auto& [name, value] : response.headers)
      MHD_add_response_header(made.get(), name.c_str(), value.c_str());
    return MHD_queue_response(connection, static_cast<unsigned>(response.status), made.get());
  }

  EventStreams streams_;
  int looks_ = 0;  // the live site's thread's alone
  workers::wiki::WikiProvider provider_;
  std::uint16_t port_ = 0;
  MHD_Daemon* daemon_ = nullptr;
  LiveSite live_;  // its thread uses the streams, so it ends before them
};

Server::Server(const ServerOptions& options) : impl_(std::make_unique<Impl>(options)) {}
Server::~Server() = default;
std::uint16_t Server::port() const { return impl_->port(); }

}  // namespace ossilar::web
