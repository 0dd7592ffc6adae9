// Four steps for each request, in this order: find its revision, answer at once what needs no work, see that
// the revision knows the method, and post the rest to the pool. The first three run on the thread that reads
// lines, since a line may depend on the one before it: `initialize` decides how the next line is read. On the
// pool that order would be lost.
//
// A request is in under_way_, or a listener of subscriptions_, from the moment it is accepted until just
// before it is answered. So a cancellation always finds it, and an id in use is refused. mutex_ guards this;
// no work is done under it, but listen() writes its acknowledgement.
#include "ossilar/mcp/session.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <random>

#include "ossilar/mcp/prompts.h"
#include "ossilar/mcp/protocol/params.h"
#include "ossilar/mcp/protocol/uri.h"
#include "ossilar/mcp/resources.h"
#include "ossilar/mcp/tools.h"
#include "ossilar/utils/text.h"

namespace ossilar::mcp {
namespace {

// A method that every revision has and that needs nothing of the session. In a table, so that a new one is a
// line.
struct Method {
  std::string_view name;
  Map (*answer)(workers::wiki::WikiProvider& provider, Revision revision, const Map& params);
};

constexpr std::array kMethods{
    Method{"tools/list", list_tools},
    Method{"resources/list", list_resources},
    Method{"resources/templates/list", list_resource_templates},
    Method{"resources/read", read_resource},
    Method{"prompts/list", list_prompts},
    Method{"prompts/get", get_prompt},
    Method{"completion/complete", complete},
};

// Methods that need the session and run on its pool. Revisions with `initialize` subscribe to one page after
// the other, stateless ones open a request that listens.
constexpr std::array<std::string_view, 2> kSessionMethods{"resources/subscribe", "resources/unsubscribe"};
constexpr std::string_view kCallTool = "tools/call";
constexpr std::string_view kListen = "subscriptions/listen";

// What the server can do does not change while the program runs. A client may cache it for an hour, as with
// tools.
constexpr int kDiscoverMilliseconds = 60 * 60 * 1000;

// The levels of RFC 5424, the lowest first: a rank is an index here. Ours are only four of them (rank_of()).
constexpr std::array<std::string_view, 8> kLevels{"debug", "info",     "notice", "warning",
                                                  "error", "critical", "alert",  "emergency"};
constexpr int kWarning = 3;
constexpr int kNothing = 8;  // above every level

std::optional<int> level_rank(std::string_view name) {
  const auto* const found = std::find(kLevels.begin(), kLevels.end(), name);
  return found == kLevels.end() ? std::nullopt : std::optional(static_cast<int>(found - kLevels.begin()));
}

int rank_of(utils::LogLevel level) {
  switch (level) {
    case utils::LogLevel::debug:
      return 0;
    case utils::LogLevel::info:
      return 1;
    case utils::LogLevel::warning:
      return kWarning;
    case utils::LogLevel::error:
      return kWarning + 1;
  }
  return kWarning;
}

// The request on this thread: the lowest level of records that its client asked for, by its session or in the
// request's `_meta` (stateless revisions), and where they go. A record is logged on the thread that does the
// work, so a thread-local variable is enough to find its request.
struct RequestHere {
  int level = kNothing;
  std::shared_ptr<Outlet> answers = {};
};
RequestHere& request_here() {
  thread_local RequestHere here;
  return here;
}

std::string record_line(const utils::LogRecord& record, int rank) {
  Map data{{"message", record.message()}};
  if (record.failure) data["failure"] = record.failure->type + ": " + record.failure->message;
  return notification_line(
      "notifications/message",
      Map{{"level", kLevels.at(static_cast<std::size_t>(rank))}, {"logger", record.logger}, {"data", data}});
}

const Method* find_method(std::string_view name) {
  const auto* const found = std::find_if(kMethods.begin(), kMethods.end(),
                                         [&](const Method& method) { return method.name == name; });
  return found == kMethods.end() ? nullptr : found;
}

bool is_known(std::string_view name, Revision revision) {
  if (find_method(name) != nullptr || name == kCallTool) return true;
  if (is_stateless(revision)) return name == kListen;
  return std::find(kSessionMethods.begin(), kSessionMethods.end(), name) != kSessionMethods.end();
}

// The stateless revision that a request names. A revision with `initialize` is refused here, since it needs a
// session that began so; the client's capabilities are required by the protocol, though this server needs
// none.
Revision named_revision(const Map& meta) {
  const Map& version = utils::member(meta, meta_key::kVersion);
  if (!version.is_string()) {
    throw ProtocolError(error_code::kInvalidParams,
                        std::string("params._meta.") + meta_key::kVersion + " must be a string");
  }
  const auto& name = version.get_ref<const std::string&>();
  const Revision* revision = find_revision(name);
  if (revision == nullptr || !is_stateless(*revision)) {
    throw ProtocolError(error_code::kUnsupportedVersion,
                        "protocol version '" + name + "' is not supported without initialize",
                        Map{{"supported", stateless_revisions()}, {"requested", name}});
  }
  if (!utils::member(meta, meta_key::kClientCapabilities).is_object()) {
    throw ProtocolError(error_code::kInvalidParams,
                        std::string("params._meta.") + meta_key::kClientCapabilities + " must be an object");
  }
  return *revision;
}

bool names_revision(const Map& params) {
  return optional_object(params, "_meta").contains(meta_key::kVersion);
}

// Reports each step of a request that gave a token for it. The protocol wants a number that grows, so steps
// are counted; how many there will be is not known. One thread works on a task, so the count needs no lock.
utils::Task::Watcher progress_watcher(const Map& params, const std::shared_ptr<Outlet>& output) {
  const Map token = utils::member(utils::member(params, "_meta"), "progressToken");
  if (!token.is_string() && !token.is_number_integer()) return {};
  return [token, output, step = 0](std::string_view message) mutable {
    output->write(notification_line(
        "notifications/progress", Map{{"progressToken", token}, {"progress", ++step}, {"message", message}}));
  };
}

// What a listener asked for, as far as it is served. Other addresses are left out and not refused: the
// acknowledgement tells the client what it will hear of.
ListenFilter filter_of(const Map& params) {
  const Map& asked = required_object(params, "notifications");
  const Map& uris = utils::member(asked, "resourceSubscriptions");
  const bool listed = uris.is_null() ||
                      (uris.is_array() && uris.size() <= kMostAddresses &&
                       std::all_of(uris.begin(), uris.end(), [](const Map& uri) { return uri.is_string(); }));
  if (!listed) {
    throw ProtocolError(error_code::kInvalidParams,
                        "params.notifications.resourceSubscriptions must be a list of at most " +
                            std::to_string(kMostAddresses) + " strings");
  }
  ListenFilter filter{.list_changed = utils::truthy(utils::member(asked, "resourcesListChanged")),
                      .uris = {}};
  for (const Map& uri : uris) {
    const auto resource = parse_uri(uri.get_ref<const std::string&>());
    if (resource && resource->kind == ResourceName::Kind::page) filter.uris.insert(page_uri(resource->name));
  }
  return filter;
}

// The spelling in which changes are told: a client may encode characters that need no encoding.
std::string canonical(const std::string& uri) {
  const auto resource = parse_uri(uri);
  return resource ? page_uri(resource->name) : uri;
}

// Eight digits tell the few sessions of a wiki apart and are short enough for people to read and agents to
// repeat. It is no secret: a claim is advice.
std::string random_name() { return fmt::format("{:08x}", std::random_device()()); }

// A name is for people to read in a page's history; what does not fit on a line of it is left out.
std::string client_name(const Map& info) {
  constexpr std::size_t kLongestName = 100;
  const std::string name = utils::string_member(info, "name");
  std::string line;
  for (const std::string_view word : utils::split_words(name))
    line += (line.empty() ? "" : " ") + std::string(word);
  return utils::printable(utils::utf8_prefix(line, kLongestName));
}

Map discovered(Revision revision) {
  return finished_for(revision,
                      Map{{"supportedVersions", stateless_revisions()},
                          {"capabilities", server_capabilities(revision)},
                          {"instructions", instructions()}},
                      kDiscoverMilliseconds);
}

}  // namespace

struct Session::UnderWay {
  UnderWay(utils::Task::Watcher watcher, utils::Task::Probe probe)
      : task(std::move(watcher), std::move(probe)) {}
  utils::Task task;
};

Session::Session(Service& service, std::shared_ptr<Outlet> output)
    : service_(service),
      output_(std::move(output)),
      name_(random_name()),
      log_level_(kNothing),
      subscriptions_(output_) {}

std::shared_ptr<Session> Session::begin(Service& service, std::shared_ptr<Outlet> output) {
  std::shared_ptr<Session> session(new Session(service, std::move(output)));
  service.enter(session);
  return session;
}

void Session::page_changed(const std::string& page_id, bool listed) {
  subscriptions_.page_changed(page_uri(page_id), listed);
}

// ---- What comes in. All on the receiving thread.

void Session::receive(std::string_view line) {
  if (line.find_first_not_of(" \t") == line.npos) return;  // nothing was said
  receive(read_line(line), line.size(), output_);
}

void Session::receive(LineContent content, std::size_t bytes, const std::shared_ptr<Outlet>& answers) {
  // What a waiting request keeps in memory, about. Each request of a batch counts the whole line: too much,
  // but that only makes the reading wait sooner.
  line_bytes_ = bytes;
  if (auto* batch = std::get_if<std::vector<Message>>(&content))
    return take_batch(std::move(*batch), answers);
  const Reply reply = [answers](const std::optional<Map>& message) {
    if (message) answers->write(line_of(*message));
  };
  take(std::get<Message>(std::move(content)), reply, answers);
}

void Session::receive_too_long(const LineTooLong& line) {
  output_->write(error_line(id_in_cut(line.beginning, line.end), error_code::kInvalidRequest,
                            "the message is longer than " + std::to_string(kLongestLine) + " bytes"));
}

void Session::take(Message message, const Reply& reply, const std::shared_ptr<Outlet>& answers) {
  if (auto* request = std::get_if<Request>(&message))
    return take_request(std::move(*request), reply, answers);
  if (const auto* notification = std::get_if<Notification>(&message)) take_notification(*notification);
  if (const auto* malformed = std::get_if<Malformed>(&message))
    return reply(error_message(malformed->id, malformed->code, malformed->message));
  reply(std::nullopt);
}

// The answers of a batch go out together, when the last is there. The messages run side by side as any
// others; whichever is answered last, on whatever thread, writes the list. A batch of notifications alone
// gets no list at all.
void Session::take_batch(std::vector<Message> batch, const std::shared_ptr<Outlet>& outlet) {
  if (!agreed_ || !has_batches(*agreed_) || batch.empty()) {
    outlet->write(error_line(
        {}, error_code::kInvalidRequest,
        batch.empty() ? "a batch must have at least one message"
                      : "batches are not part of this protocol revision; send one message per line"));
    return;
  }
  struct Answers {
    std::mutex mutex;
    Map messages = Map::array();
    std::size_t missing = 0;
  };
  const auto answers = std::make_shared<Answers>();
  answers->missing = batch.size();
  const Reply collect = [outlet, answers](const std::optional<Map>& message) {
    const std::lock_guard lock(answers->mutex);
    if (message) answers->messages.push_back(*message);
    if (--answers->missing == 0 && !answers->messages.empty()) outlet->write(line_of(answers->messages));
  };
  for (Message& message : batch) take(std::move(message), collect, outlet);
}

// `initialize` and `ping` come first, as they need no revision: `ping` is allowed before one is agreed on. A
// request that names its revision is none of the two, whatever its method: stateless revisions have neither.
void Session::take_request(Request request, const Reply& reply, const std::shared_ptr<Outlet>& answers) {
  try {
    if (request.method == "initialize" && !names_revision(request.params))
      return reply(result_message(request.id, initialize(request.params)));
    if (request.method == "ping" && !agreed_ && !names_revision(request.params))
      return reply(result_message(request.id, Map::object()));
    const Revision revision = revision_of(request);
    if (auto result = answer_at_once(request, revision)) return reply(result_message(request.id, *result));
    if (!is_known(request.method, revision)) {
      throw ProtocolError(error_code::kMethodNotFound, "revision " + std::string(revision_name(revision)) +
                                                           " has no method '" + request.method + "'");
    }
    const std::string client =
        is_stateless(revision)
            ? client_name(utils::member(optional_object(request.params, "_meta"), meta_key::kClientInfo))
            : client_;
    run_later(std::move(request), {.revision = revision, .client = client, .answers = answers}, reply);
  } catch (const ProtocolError& error) {
    reply(error_message(request.id, error.code(), error.what(), error.data()));
  }
}

// Unknown notifications are ignored: a notification is never answered.
void Session::take_notification(const Notification& notification) {
  if (notification.method == "notifications/cancelled")
    cancel(utils::member(notification.params, "requestId"));
  if (notification.method == "notifications/initialized" && agreed_) subscriptions_.begin_session();
}

// What the request names goes before what the session agreed on.
Revision Session::revision_of(const Request& request) const {
  const Map& meta = optional_object(request.params, "_meta");
  if (meta.contains(meta_key::kVersion)) return named_revision(meta);
  if (agreed_) return *agreed_;
  throw ProtocolError(error_code::kInvalidParams,
                      std::string("the request names no protocol version: call initialize first, or give ") +
                          meta_key::kVersion + " and " + meta_key::kClientCapabilities + " in params._meta");
}

// ---- Answers that need no thread. On the receiving thread, so that the next line sees what they set.

// A client that asks for a revision which is not served, or is stateless, is offered the newest of the
// others; whether it can speak that is for the client to decide.
Map Session::initialize(const Map& params) {
  if (agreed_) throw ProtocolError(error_code::kInvalidRequest, "this session is already initialized");
  const Revision* asked = find_revision(required_string(params, "protocolVersion"));
  agreed_ = asked != nullptr && !is_stateless(*asked) ? *asked : kLatestWithInitialize;
  client_ = client_name(utils::member(params, "clientInfo"));
  // Until the client sets one. A session that does not begin with `initialize` gets no records unasked.
  log_level_ = kWarning;
  return {{"protocolVersion", revision_name(*agreed_)},
          {"capabilities", server_capabilities(*agreed_)},
          {"serverInfo", server_info(*agreed_)},
          {"instructions", instructions()}};
}

std::optional<Map> Session::answer_at_once(const Request& request, Revision revision) {
  if (is_stateless(revision))
    return request.method == "server/discover" ? std::optional(discovered(revision)) : std::nullopt;
  if (request.method == "ping") return Map::object();
  if (request.method != "logging/setLevel") return std::nullopt;
  const auto rank = level_rank(required_string(request.params, "level"));
  if (!rank) {
    throw ProtocolError(error_code::kInvalidParams,
                        "params.level must be a level of RFC 5424, such as \"warning\"");
  }
  log_level_ = *rank;
  return Map::object();
}

// ---- Requests on the pool.

void Session::run_later(Request request, Speaker speaker, const Reply& reply) {
  // Entered before it is posted: a cancellation may be the very next line, when the request still waits.
  const auto work = std::make_shared<UnderWay>(
      progress_watcher(request.params, speaker.answers),
      service_.observer() != nullptr ? service_.observer()->probe(request) : utils::Task::Probe());
  {
    const std::lock_guard lock(mutex_);
    if (subscriptions_.holds(request.id) || !under_way_.emplace(request.id.dump(), work).second) {
      throw ProtocolError(error_code::kInvalidRequest,
                          "a request with this id is still running; use another id");
    }
  }
  // Without the lock: post() may wait, and the requests that make room need the lock to end.
  std::string key = request.method == kCallTool ? serial_key(request.params) : "";
  service_.scheduler().post(
      std::move(key), line_bytes_,
      [self = shared_from_this(), request = std::move(request), speaker = std::move(speaker), work, reply] {
        self->run(request, speaker, *work, reply);
      });
}

void Session::run(const Request& request, const Speaker& speaker, UnderWay& work, const Reply& reply) {
  const auto begun = std::chrono::steady_clock::now();
  const int asked =
      level_rank(utils::string_member(utils::member(request.params, "_meta"), meta_key::kLogLevel))
          .value_or(kNothing);
  request_here() = {.level = std::min(asked, log_level_.load()), .answers = speaker.answers};
  std::optional<Map> message;
  try {
    work.task.check();  // it may have been cancelled while it waited
    if (auto result = result_of(request, speaker, work.task)) message = result_message(request.id, *result);
  } catch (const utils::Cancelled&) {  // not a failure: it is not answered
  } catch (const ProtocolError& error) {
    message = error_message(request.id, error.code(), error.what(), error.data());
  } catch (const std::exception& error) {
    message = error_message(request.id, error_code::kInternal, error.what());
  }
  {  // before the answer: a client that has read it may use the id again
    const std::lock_guard lock(mutex_);
    under_way_.erase(request.id.dump());
  }
  // A client that cancelled waits for no answer. But a save that went through the commit is answered: it is
  // on disk, and the client must not believe that it was prevented.
  if (work.task.was_cancelled() && !work.task.has_been_shielded()) message.reset();
  request_here() = {};  // the thread must not keep the way to a client that has all its answers
  if (service_.observer() != nullptr)
    service_.observer()->ended(request, message, std::chrono::steady_clock::now() - begun);
  reply(std::move(message));
}

// The result, or none for a request that stays open. Before a subscription the watch looks: see
// PageWatch::look().
std::optional<Map> Session::result_of(const Request& request, const Speaker& speaker, utils::Task& task) {
  if (request.method == kListen) {
    listen(request, speaker, task);
    return std::nullopt;
  }
  if (request.method == "resources/subscribe") {
    const std::string uri = required_string(request.params, "uri");
    require_page_uri(service_.provider(), speaker.revision, uri);
    service_.watch().look();
    if (!subscriptions_.subscribe(canonical(uri))) {
      throw ProtocolError(error_code::kInvalidParams,
                          "too many subscriptions; unsubscribe from a resource first");
    }
    return Map::object();
  }
  if (request.method == "resources/unsubscribe") {
    subscriptions_.unsubscribe(canonical(required_string(request.params, "uri")));
    return Map::object();
  }
  if (request.method != kCallTool)
    return find_method(request.method)->answer(service_.provider(), speaker.revision, request.params);
  Map result = call_tool(service_.provider(), speaker.revision, request.params,
                         {.client = speaker.client, .session = name_}, task);
  service_.watch()
      .wake();  // it may have been a save, whose subscribers should not wait for the next regular look
  return result;
}

// The request stays open; the acknowledgement is all that it is answered with until it ends. The wiki is
// opened first: the watch looks only at one that is open, and this client may never ask for anything else.
void Session::listen(const Request& request, const Speaker& speaker, const utils::Task& task) {
  const ListenFilter filter = filter_of(request.params);
  service_.provider().get();
  service_.watch().look();
  // So that cancel() finds the request: either under way or listening, never in between.
  const std::lock_guard lock(mutex_);
  task.check();
  if (!subscriptions_.listen(request.id, filter, speaker.answers)) {
    throw ProtocolError(error_code::kInvalidParams,
                        "too many open subscriptions/listen requests; cancel one first");
  }
}

// ---- The end of requests and of the session.

void Session::cancel(const Map& id) {
  const std::lock_guard lock(mutex_);
  const auto work = under_way_.find(id.dump());
  if (work != under_way_.end()) work->second->task.cancel();
  subscriptions_.cancel(id);  // under the lock too, see listen()
}

void Session::cancel_all() {
  const std::lock_guard lock(mutex_);
  for (const auto& [id, work] : under_way_) work->task.cancel();
}

bool Session::finish(std::chrono::milliseconds patience, bool abandoned) {
  // A cancelled request ends when it next asks its task, which the steps of a save do often. One that does
  // not ask within two seconds counts as hanging: the process then ends without it.
  constexpr std::chrono::milliseconds kLastPatience(2000);
  if (abandoned) cancel_all();
  bool done = service_.scheduler().drain(patience);
  if (!done) {
    cancel_all();
    done = service_.scheduler().drain(kLastPatience);
  }
  subscriptions_.finish();  // last: the end of a listener says that nothing more comes
  return done;
}

// Later, as a commit logs too: a client that reads nothing must not keep the write lock from others.
void Session::log(const utils::LogRecord& record) {
  const int rank = rank_of(record.level);
  // Either is enough. Outside a request, and in one that named no level, that of the request is above every
  // rank.
  if (rank < log_level_ && rank < request_here().level) return;
  output_->write_later(record_line(record, rank));
}

void Session::log_to_request(const utils::LogRecord& record) {
  const int rank = rank_of(record.level);
  const RequestHere& here = request_here();
  if (here.answers && rank >= here.level) here.answers->write_later(record_line(record, rank));
}

}  // namespace ossilar::mcp
