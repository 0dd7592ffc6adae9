// The library parses requests and calls back on one of its threads. A request passes the gate by its headers,
// its body is read, and what it asks runs on the threads of the service. Meanwhile the connection sleeps; it
// is woken when the form of its answer is known, and answered as one document or as a stream of events.
//
// The library's callbacks for one connection never overlap, so a Post needs no lock. What other threads do to
// a connection goes through Sleepers, which know whether it sleeps.
#include "ossilar/mcp/http/server.h"

#include <microhttpd.h>

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "ossilar/mcp/http/call.h"
#include "ossilar/mcp/http/clients.h"
#include "ossilar/mcp/http/exchange.h"
#include "ossilar/mcp/http/gate.h"
#include "ossilar/mcp/http/metrics.h"
#include "ossilar/mcp/http/reply.h"
#include "ossilar/mcp/http/sleepers.h"
#include "ossilar/mcp/protocol/transport.h"
#include "ossilar/mcp/service.h"
#include "ossilar/mcp/session.h"
#include "ossilar/utils/error.h"

namespace ossilar::mcp::http {
namespace {

const utils::Logger logger("ossilar.mcp.http");

constexpr unsigned kThreads = 4;
// Two for each session: the stream of its notifications, and a request.
constexpr unsigned kMostConnections = 2 * kMostSessions;
constexpr std::size_t kConnectionMemory = std::size_t{32} * 1024;  // request line and headers
constexpr unsigned kIdleSeconds = 30;
// Requests that wait for their answer, and the bytes of all bodies. More are told to come back: the scheduler
// behind would otherwise make the library's threads wait, and with them everybody.
constexpr std::size_t kMostInFlight = 256;
constexpr std::size_t kMostBodyBytes = std::size_t{28} * 1024 * 1024;
constexpr std::size_t kMostListening = 128;
constexpr std::chrono::milliseconds kLook{200};
constexpr int kLooksToBeat = 75;  // 15 seconds, below the patience of proxies

// Of sessions without a stream for what answers no request.
class NoOutlet final : public Outlet {
 public:
  bool write(std::string_view /*text*/) override { return false; }
  void write_later(std::string /*text*/) override {}
};

// A request from its headers to the end of its answer.
struct Post {
  Head head;
  std::optional<Refusal> refusal;
  std::string body;
  bool is_counted = false;             // among the requests in flight
  bool is_listening = false;           // or among those that listen, which stay open
  std::size_t counted_bytes = 0;       // among those of all bodies
  std::shared_ptr<Exchange> exchange;  // once it is served
  std::shared_ptr<Client> client;
  std::shared_ptr<Session> alone;  // of a request that stands alone
  Kind kind = Kind::belongs;
  std::atomic<bool> is_gone = false;
};

}  // namespace

class Server::Impl {
 public:
  explicit Impl(ServerOptions options)
      : options_(std::move(options)), provider_(options_.root, "ossilar mcp --http") {
    if (!options_.listening.is_loopback() && options_.token.empty()) {
      throw utils::ConfigError(
          "an address that other machines reach needs --token-file; and let a proxy in front "
          "of it do TLS, or the token can be read on the way");
    }
    start();
    gate_ = {.port = port_, .is_loopback = options_.listening.is_loopback(), .token = options_.token};
    is_ready_ = true;
    utils::set_log_sink([log = options_.log](const utils::LogRecord& record) {
      if (log) log(record);
      Session::log_to_request(record);
    });
    housekeeper_ = std::thread([this] { keep_house(); });
  }

  ~Impl() {
    finish(std::chrono::milliseconds(0));
    utils::set_log_sink(options_.log);
  }

  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  std::string url() const {
    Listening at = options_.listening;
    at.port = port_;
    return "http://" + at.text() + std::string(kEndpoint);
  }

  bool finish(std::chrono::milliseconds patience) {
    constexpr std::chrono::milliseconds kLastPatience(2000);
    if (daemon_ == nullptr) return true;
    is_ending_ = true;
    bool done = service_.scheduler().drain(patience);
    service_.end_sessions();
    clients_.end_all();
    if (!done) done = service_.scheduler().drain(kLastPatience);
    await_answers();
    {
      const std::lock_guard lock(house_mutex_);
      house_ends_ = true;
    }
    house_wakes_.notify_all();
    housekeeper_.join();
    sleepers_.end();
    if (done) MHD_stop_daemon(std::exchange(daemon_, nullptr));
    return done;
  }

 private:
  // Until what is answered by now is on its way, for a second at most.
  void await_answers() const {
    constexpr int kMostLooks = 100;
    for (int looks = 0; looks < kMostLooks && in_flight_ + listening_ > 0; ++looks)
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }

  void start() {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr = options_.listening.address;
    address.sin_port = htons(options_.listening.port);
    errno = 0;
    daemon_ =
        MHD_start_daemon(MHD_USE_EPOLL_INTERNAL_THREAD | MHD_ALLOW_SUSPEND_RESUME, 0, nullptr, nullptr,
                         &Impl::handle, this, MHD_OPTION_SOCK_ADDR, &address, MHD_OPTION_THREAD_POOL_SIZE,
                         kThreads, MHD_OPTION_CONNECTION_LIMIT, kMostConnections,
                         MHD_OPTION_CONNECTION_MEMORY_LIMIT, kConnectionMemory, MHD_OPTION_CONNECTION_TIMEOUT,
                         kIdleSeconds, MHD_OPTION_NOTIFY_COMPLETED, &Impl::completed, this, MHD_OPTION_END);
    const std::string place = options_.listening.text();
    if (daemon_ == nullptr && errno == EADDRINUSE)
      throw utils::ConfigError(place + " is in use; choose another port");
    if (daemon_ == nullptr && (errno == EACCES || errno == EADDRNOTAVAIL))
      throw utils::ConfigError(place + " may not be used here; choose another address or port");
    if (daemon_ == nullptr) throw utils::IoError("cannot serve on " + place, errno);
    port_ = MHD_get_daemon_info(daemon_, MHD_DAEMON_INFO_BIND_PORT)->port;
  }

  void keep_house() {
    std::unique_lock lock(house_mutex_);
    for (int looks = 1; !house_wakes_.wait_for(lock, kLook, [this] { return house_ends_; }); ++looks) {
      sleepers_.look();
      if (looks % kLooksToBeat == 0) {
        clients_.beat();
        clients_.end_idle(Clock::now());
      }
    }
  }

  // ---- Requests, on the library's threads.

  static MHD_Result handle(void* self, MHD_Connection* connection, const char* url, const char* method,
                           const char* /*version*/, const char* data, std::size_t* size, void** state) {
    auto& server = *static_cast<Impl*>(self);
    auto* post = static_cast<Post*>(*state);
    try {
      if (post == nullptr) return server.begin(connection, url, method, state);
      if (*size > 0) return server.take_body(*post, {data, std::exchange(*size, 0)});
      return server.answer(connection, *post);
    } catch (const std::exception& error) {
      logger.warning("cannot answer a request", error);
      return send_refusal(connection, {500, std::string("this failed: ") + error.what()});
    }
  }

  static void completed(void* self, MHD_Connection* /*connection*/, void** state,
                        MHD_RequestTerminationCode /*code*/) {
    auto& server = *static_cast<Impl*>(self);
    const std::unique_ptr<Post> post(static_cast<Post*>(std::exchange(*state, nullptr)));
    if (!post) return;
    if (post->exchange) post->exchange->forget_waker();
    if (post->alone) {
      // The client is gone or has its answer: what stands alone ends with its connection.
      post->alone->cancel_all();
      post->alone->drop_listeners();
    }
    server.body_bytes_ -= post->counted_bytes;
    if (post->is_counted) --server.in_flight_;
    if (post->is_listening) --server.listening_;
  }

  // A refusal is answered before the body is read, which ends the connection.
  MHD_Result begin(MHD_Connection* connection, const char* url, const char* method, void** state) {
    auto post = std::make_unique<Post>();
    post->head = head_of(connection, url, method);
    if (!is_ready_ || is_ending_) {
      post->refusal = {503, "the server is starting or ending; try again"};
    } else {
      post->refusal = refuse(gate_, post->head);
    }
    if (!post->refusal && post->head.method == "POST") {
      post->is_counted = true;
      if (++in_flight_ > kMostInFlight || body_bytes_ > kMostBodyBytes)
        post->refusal = {503, "too many requests wait; try again"};
    }
    const auto refusal = post->refusal;
    *state = post.release();  // completed() frees it
    return refusal ? send_refusal(connection, *refusal) : MHD_YES;
  }

  MHD_Result drop_body(Post& post, Refusal refusal) {
    post.refusal = std::move(refusal);
    body_bytes_ -= std::exchange(post.counted_bytes, 0);
    post.body = std::string();
    return MHD_YES;
  }

  // A body that is too long is read to its end, so that its client is told and does not find the connection
  // closed; nothing of it is kept.
  MHD_Result take_body(Post& post, std::string_view data) {
    if (post.refusal) return MHD_YES;
    if (post.body.size() + data.size() > kLongestLine)
      return drop_body(post, {413, "the body is longer than " + std::to_string(kLongestLine) + " bytes"});
    if (body_bytes_ + data.size() > kMostBodyBytes)
      return drop_body(post, {503, "too many requests wait; try again"});
    post.body += data;
    post.counted_bytes += data.size();
    body_bytes_ += data.size();
    return MHD_YES;
  }

  MHD_Result answer(MHD_Connection* connection, Post& post) {
    if (post.refusal) return send_refusal(connection, *post.refusal);
    if (post.exchange) return go_on(connection, post);
    if (post.head.path == "/healthz") return send(connection, 200, "ok\n", "text/plain; charset=utf-8");
    if (post.head.path == "/metrics") {
      return send(connection, 200,
                  metrics_.text({.sessions = clients_.size(), .requests = in_flight_.load()}),
                  "text/plain; version=0.0.4; charset=utf-8");
    }
    if (post.head.method == "GET") return open_stream(connection, post);
    if (post.head.method == "DELETE") return end_session(connection, post);
    return serve(connection, post);
  }

  std::optional<Refusal> find_client(Post& post) {
    if (post.head.session_id.empty())
      return Refusal{400, "the header Mcp-Session-Id is missing; begin a session with initialize"};
    post.client = clients_.find(post.head.session_id, Clock::now());
    if (!post.client)
      return Refusal{404, "there is no such session (any more); begin another with initialize"};
    return std::nullopt;
  }

  MHD_Result end_session(MHD_Connection* connection, Post& post) {
    if (const auto refusal = find_client(post)) return send_refusal(connection, *refusal);
    clients_.end(post.head.session_id);
    return send(connection, 204, "", "");
  }

  // The stream of what answers no request, or one that broke off, after the last event that was seen.
  MHD_Result open_stream(MHD_Connection* connection, Post& post) {
    if (const auto refusal = find_client(post)) return send_refusal(connection, *refusal);
    if (post.head.last_event_id.empty()) {
      return send_events(
          connection, sleepers_,
          {.stream = post.client->notifications(), .after = {}, .client = post.client, .alone = {}});
    }
    const auto id = parse_event_id(post.head.last_event_id);
    const auto stream = id ? post.client->stream(id->stream) : nullptr;
    if (!stream) return send_refusal(connection, {400, "Last-Event-ID names no event that is kept"});
    return send_events(connection, sleepers_,
                       {.stream = stream, .after = id->event, .client = post.client, .alone = {}});
  }

  MHD_Result serve(MHD_Connection* connection, Post& post) {
    // A client that gave up a request before it sent this one must find it cancelled.
    sleepers_.look();
    LineContent content = read_line(post.body);
    const bool is_answered = wants_answer(content);
    post.kind = kind_of(content, post.head);
    if (post.kind == Kind::stands_alone) {
      if (const auto error = disagreement(content, post.head))
        return send(connection, 400, *error, "application/json");
      if (post.head.mcp_method == "subscriptions/listen" && !count_as_listening(post))
        return send_refusal(connection, {503, "too many clients listen; try again"});
      post.alone = Session::begin(service_, std::make_shared<NoOutlet>());
    } else if (post.kind == Kind::begins) {
      post.client = clients_.begin(Clock::now());
      if (!post.client) return send_refusal(connection, {503, "too many sessions are open; try again"});
    } else if (const auto refusal = find_client(post)) {
      // What cannot be read may have been meant for no session.
      return send_refusal(connection, *refusal);
    }
    const auto stream = post.client ? post.client->new_stream() : std::make_shared<EventStream>(0);
    const Revision* revision = find_revision(post.head.protocol_version);
    const bool primes = post.client && revision != nullptr && *revision >= Revision::r2025_11_25;
    const auto exchange = std::make_shared<Exchange>(stream, primes);
    receive(post, std::move(content), Exchange::outlet(exchange));
    if (!is_answered) return send(connection, 202, "", "");
    post.exchange = exchange;
    return go_on(connection, post);
  }

  bool count_as_listening(Post& post) {
    if (++listening_ > kMostListening) {
      --listening_;
      return false;
    }
    post.is_listening = true;
    post.is_counted = false;
    --in_flight_;
    return true;
  }

  static void receive(Post& post, LineContent content, const std::shared_ptr<Outlet>& outlet) {
    const std::size_t bytes = post.body.size();
    if (post.alone) return post.alone->receive(std::move(content), bytes, outlet);
    const std::lock_guard lock(post.client->receiving());
    post.client->session().receive(std::move(content), bytes, outlet);
  }

  // Sleeps first and asks then, so that no wake is missed. A connection that was not woken by its exchange
  // was by look(): its client is gone.
  MHD_Result go_on(MHD_Connection* connection, Post& post) {
    if (post.is_gone) return MHD_NO;
    if (post.exchange->form({}) == Exchange::Form::undecided) {
      sleepers_.sleep(connection, post.is_gone, post.alone);
      if (post.is_gone) return MHD_NO;
      const auto form = post.exchange->form([this, connection] { sleepers_.wake(connection); });
      if (form != Exchange::Form::undecided) sleepers_.wake(connection);
      return MHD_YES;
    }
    Headers headers;
    const auto form = post.exchange->form({});
    const bool has_failed = form == Exchange::Form::document && is_error(post.exchange->document());
    if (post.kind == Kind::begins && has_failed) clients_.end(post.client->id());
    if (post.kind == Kind::begins && !has_failed) headers.emplace_back("Mcp-Session-Id", post.client->id());
    if (form == Exchange::Form::document) {
      const std::string& document = post.exchange->document();
      return send(connection, status_of(document, post.kind), document, "application/json", headers);
    }
    return send_events(
        connection, sleepers_,
        {.stream = post.exchange->stream(), .after = 0, .client = post.client, .alone = post.alone}, headers);
  }

  const ServerOptions options_;
  Gate gate_;  // never changes once is_ready_
  std::atomic<bool> is_ready_ = false;
  std::atomic<bool> is_ending_ = false;
  std::atomic<std::size_t> in_flight_ = 0;
  std::atomic<std::size_t> listening_ = 0;
  std::atomic<std::size_t> body_bytes_ = 0;
  std::uint16_t port_ = 0;
  MHD_Daemon* daemon_ = nullptr;
  Sleepers sleepers_;
  Metrics metrics_;
  workers::wiki::WikiProvider provider_;
  Service service_{provider_, &metrics_};
  Clients clients_{service_};
  std::mutex house_mutex_;
  std::condition_variable house_wakes_;
  bool house_ends_ = false;  // guarded by house_mutex_
  std::thread housekeeper_;
};

Server::Server(ServerOptions options) : impl_(std::make_unique<Impl>(std::move(options))) {}
Server::~Server() = default;
std::string Server::url() const { return impl_->url(); }
bool Server::finish(std::chrono::milliseconds patience) {
  if (impl_->finish(patience)) return true;
  static_cast<void>(impl_.release());  // on purpose: threads that did not end still use it
  return false;
}

}  // namespace ossilar::mcp::http
