#include "ossilar/mcp/session.h"

#include <algorithm>
#include <array>
#include <atomic>

#include "ossilar/mcp/prompts.h"
#include "ossilar/mcp/protocol/params.h"
#include "ossilar/mcp/protocol/uri.h"
#include "ossilar/mcp/resources.h"
#include "ossilar/mcp/tools.h"

namespace ossilar::mcp {
namespace {

// A method that every revision has and that needs nothing of the session.
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

// Methods of the session itself that are answered on a thread of the pool, by era.
constexpr std::array<std::string_view, 2> kSessionMethods{"resources/subscribe", "resources/unsubscribe"};
constexpr std::string_view kCallTool = "tools/call";
constexpr std::string_view kListen = "subscriptions/listen";

constexpr std::size_t kMostAddresses = 1000;  // of one listener

constexpr std::size_t kThreads = 8;                    // most requests wait for a disk or for each other
constexpr std::chrono::milliseconds kLookEvery(1000);  // for pages that other processes change

constexpr int kDiscoverMilliseconds = 60 * 60 * 1000;

// The levels of RFC 5424 by rank.
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

// The lowest level that the request which runs on this thread asked for in its `_meta`.
int& level_of_request() {
  thread_local int level = kNothing;
  return level;
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
                        "protocol version '" + name + "' is not served without initialize",
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

// Reports each step of a request that gave a token for it.
utils::Task::Watcher progress_watcher(const Map& params, LineWriter& output) {
  const Map token = utils::member(utils::member(params, "_meta"), "progressToken");
  if (!token.is_string() && !token.is_number_integer()) return {};
  return [token, &output, step = 0](std::string_view message) mutable {
    output.write(notification_line(
        "notifications/progress", Map{{"progressToken", token}, {"progress", ++step}, {"message", message}}));
  };
}

// What is not a page's address is left out, and so not promised.
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
    if (resource && resource->kind == ResourceName::Kind::page) filter.uris.insert(uri.get<std::string>());
  }
  return filter;
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
  explicit UnderWay(utils::Task::Watcher watcher) : task(std::move(watcher)) {}
  utils::Task task;
};

Session::Session(workers::wiki::WikiProvider& provider, LineWriter& output)
    : provider_(provider),
      output_(output),
      log_level_(kNothing),
      subscriptions_(output),
      watch_(provider, kLookEvery,
             [this](const std::string& page_id, bool listed) {
               subscriptions_.page_changed(page_uri(page_id), listed);
             }),
      scheduler_(kThreads) {}

// ---- What comes in.

void Session::receive(std::string_view line) {
  if (line.find_first_not_of(" \t") == line.npos) return;  // nothing was said
  line_bytes_ = line.size();
  LineContent content = read_line(line);
  if (auto* batch = std::get_if<std::vector<Message>>(&content)) return take_batch(std::move(*batch));
  take(std::get<Message>(std::move(content)), write_reply());
}

void Session::receive_too_long(const LineTooLong& line) {
  output_.write(error_line(id_in_cut(line.beginning, line.end), error_code::kInvalidRequest,
                           "a message is at most " + std::to_string(kLongestLine) + " bytes long"));
}

Session::Reply Session::write_reply() {
  return [this](const std::optional<Map>& message) {
    if (message) output_.write(line_of(*message));
  };
}

void Session::take(Message message, const Reply& reply) {
  if (auto* request = std::get_if<Request>(&message)) return take_request(std::move(*request), reply);
  if (const auto* notification = std::get_if<Notification>(&message)) take_notification(*notification);
  if (const auto* malformed = std::get_if<Malformed>(&message))
    return reply(error_message(malformed->id, malformed->code, malformed->message));
  reply(std::nullopt);
}

// The answers of a batch go out together, when the last is there.
void Session::take_batch(std::vector<Message> batch) {
  if (!agreed_ || !has_batches(*agreed_) || batch.empty()) {
    output_.write(error_line(
        {}, error_code::kInvalidRequest,
        batch.empty() ? "a batch has at least one message"
                      : "batches are not part of this protocol revision; send one message a line"));
    return;
  }
  struct Answers {
    std::mutex mutex;
    Map messages = Map::array();
    std::size_t missing = 0;
  };
  const auto answers = std::make_shared<Answers>();
  answers->missing = batch.size();
  const Reply collect = [this, answers](const std::optional<Map>& message) {
    const std::lock_guard lock(answers->mutex);
    if (message) answers->messages.push_back(*message);
    if (--answers->missing == 0 && !answers->messages.empty()) output_.write(line_of(answers->messages));
  };
  for (Message& message : batch) take(std::move(message), collect);
}

void Session::take_request(Request request, const Reply& reply) {
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
    run_later(std::move(request), revision, reply);
  } catch (const ProtocolError& error) {
    reply(error_message(request.id, error.code(), error.what(), error.data()));
  }
}

void Session::take_notification(const Notification& notification) {
  if (notification.method == "notifications/cancelled")
    cancel(utils::member(notification.params, "requestId"));
  if (notification.method == "notifications/initialized" && agreed_) subscriptions_.begin_session();
}

Revision Session::revision_of(const Request& request) const {
  const Map& meta = optional_object(request.params, "_meta");
  if (meta.contains(meta_key::kVersion)) return named_revision(meta);
  if (agreed_) return *agreed_;
  throw ProtocolError(error_code::kInvalidParams,
                      std::string("the request names no protocol version: call initialize first, or give ") +
                          meta_key::kVersion + " and " + meta_key::kClientCapabilities + " in params._meta");
}

// ---- Answers that need no thread.

Map Session::initialize(const Map& params) {
  if (agreed_) throw ProtocolError(error_code::kInvalidRequest, "this session is initialized already");
  const Revision* asked = find_revision(required_string(params, "protocolVersion"));
  agreed_ = asked != nullptr && !is_stateless(*asked) ? *asked : kLatestWithInitialize;
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
  if (!rank) throw ProtocolError(error_code::kInvalidParams, "params.level is no level of RFC 5424");
  log_level_ = *rank;
  return Map::object();
}

// ---- Requests on the pool.

void Session::run_later(Request request, Revision revision, const Reply& reply) {
  const auto work = std::make_shared<UnderWay>(progress_watcher(request.params, output_));
  {
    const std::lock_guard lock(mutex_);
    if (subscriptions_.holds(request.id) || !under_way_.emplace(request.id.dump(), work).second)
      throw ProtocolError(error_code::kInvalidRequest, "a request with this id is under way");
  }
  std::string key = request.method == kCallTool ? serial_key(request.params) : "";
  scheduler_.post(std::move(key), line_bytes_, [this, request = std::move(request), revision, work, reply] {
    run(request, revision, *work, reply);
  });
}

void Session::run(const Request& request, Revision revision, UnderWay& work, const Reply& reply) {
  level_of_request() =
      level_rank(utils::string_member(utils::member(request.params, "_meta"), meta_key::kLogLevel))
          .value_or(kNothing);
  std::optional<Map> message;
  try {
    work.task.check();
    if (auto result = result_of(request, revision, work.task)) message = result_message(request.id, *result);
  } catch (const utils::Cancelled&) {
  } catch (const ProtocolError& error) {
    message = error_message(request.id, error.code(), error.what(), error.data());
  } catch (const std::exception& error) {
    message = error_message(request.id, error_code::kInternal, error.what());
  }
  {
    const std::lock_guard lock(mutex_);
    under_way_.erase(request.id.dump());
  }
  // Who cancelled waits for no answer; but what a commit did is said all the same.
  if (work.task.was_cancelled() && !work.task.has_been_shielded()) message.reset();
  reply(std::move(message));
}

std::optional<Map> Session::result_of(const Request& request, Revision revision, utils::Task& task) {
  if (request.method == kListen) {
    listen(request, task);
    return std::nullopt;
  }
  if (request.method == "resources/subscribe") {
    const std::string uri = required_string(request.params, "uri");
    require_page_uri(provider_, revision, uri);
    watch_.look();
    subscriptions_.subscribe(uri);
    return Map::object();
  }
  if (request.method == "resources/unsubscribe") {
    subscriptions_.unsubscribe(required_string(request.params, "uri"));
    return Map::object();
  }
  if (request.method != kCallTool)
    return find_method(request.method)->answer(provider_, revision, request.params);
  Map result = call_tool(provider_, revision, request.params, task);
  watch_.wake();  // it may have been a save
  return result;
}

// The request stays open; the acknowledgement is all that it is answered with until it ends.
void Session::listen(const Request& request, const utils::Task& task) {
  const ListenFilter filter = filter_of(request.params);
  provider_.get();
  watch_.look();
  const std::lock_guard lock(mutex_);  // cancel() finds it either under way or listening
  task.check();
  if (!subscriptions_.listen(request.id, filter))
    throw ProtocolError(error_code::kInvalidParams, "there are too many listeners; end one of them");
}

// ---- The end of requests and of the session.

void Session::cancel(const Map& id) {
  const std::lock_guard lock(mutex_);
  const auto work = under_way_.find(id.dump());
  if (work != under_way_.end()) work->second->task.cancel();
  subscriptions_.cancel(id);
}

void Session::cancel_all() {
  const std::lock_guard lock(mutex_);
  for (const auto& [id, work] : under_way_) work->task.cancel();
}

bool Session::finish(std::chrono::milliseconds patience, bool abandoned) {
  constexpr std::chrono::milliseconds kLastPatience(2000);  // the longest step between two looks
  output_.input_has_ended();
  if (abandoned) cancel_all();
  bool done = scheduler_.drain(patience);
  if (!done) {
    cancel_all();
    done = scheduler_.drain(kLastPatience);
  }
  subscriptions_.finish();
  return done;
}

void Session::log(const utils::LogRecord& record) {
  const int rank = rank_of(record.level);
  if (rank < log_level_ && rank < level_of_request()) return;
  Map data{{"message", record.message()}};
  if (record.failure) data["failure"] = record.failure->type + ": " + record.failure->message;
  output_.write(notification_line(
      "notifications/message",
      Map{{"level", kLevels.at(static_cast<std::size_t>(rank))}, {"logger", record.logger}, {"data", data}}));
}

}  // namespace ossilar::mcp
