// A blocking call of libpq waits without a limit for a server that was cut off, so statements are sent
// without blocking, and the answer is waited for by poll(2) with a deadline.
#include "ossilar/store/postgresql/connection.h"

#include <poll.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <optional>

#include "ossilar/store/stored_form.h"
#include "ossilar/utils/text.h"

namespace ossilar::store::postgresql {
namespace {

using std::chrono::milliseconds;

// Between two calls of `during`.
constexpr milliseconds kLook(50);

// The first line: what follows are guesses of libpq's.
std::string message_of(std::string_view text) {
  text = utils::strip(text);
  const std::string line = utils::printable_line(utils::valid_utf8(text.substr(0, text.find('\n'))));
  return line.empty() ? "no reason given" : line;
}

// What to do about a connection that was refused, where that is not plain from the server's words.
std::string advice_on_connecting(std::string_view message) {
  const auto has = [&](std::string_view words) { return message.find(words) != message.npos; };
  if (has("too many clients") || has("remaining connection slots"))
    return "; the server has no connection left: try again, or raise its max_connections";
  if (has("password")) return "; give the password in ~/.pgpass or PGPASSWORD";
  if (has("does not exist") && has("database")) return "; create it with: createdb";
  return "";
}

std::string parameter_of(const std::string& url, const char* keyword) {
  char* error = nullptr;
  const std::unique_ptr<PQconninfoOption, decltype(&PQconninfoFree)> options(
      PQconninfoParse(url.c_str(), &error), &PQconninfoFree);
  PQfreemem(error);
  if (!options) return "";
  for (const PQconninfoOption* option = options.get(); option->keyword != nullptr; ++option)
    if (std::string_view(option->keyword) == keyword && option->val != nullptr) return option->val;
  return "";
}

// Those before dbname are defaults, which the address may override; those after it always hold.
//
// A peer that vanishes is noticed after some ten seconds: by keepalives when the connection is idle, by
// tcp_user_timeout when something was sent.
std::unique_ptr<PGconn, decltype(&PQfinish)> connect(const Connection::Options& options) {
  static constexpr std::array kKeywords{"connect_timeout",  "keepalives_idle",  "keepalives_interval",
                                        "keepalives_count", "tcp_user_timeout", "dbname",
                                        "application_name", "client_encoding"};
  const std::array values{"10", "5", "2", "3", "10000", options.url.c_str(), options.program.c_str(), "UTF8"};
  std::array<const char*, kKeywords.size() + 1> keywords{};
  std::array<const char*, values.size() + 1> ended{};
  std::copy(kKeywords.begin(), kKeywords.end(), keywords.begin());
  std::copy(values.begin(), values.end(), ended.begin());
  return {PQconnectdbParams(keywords.data(), ended.data(), 1), &PQfinish};
}

// The fields of the message that tell a person something.
std::string error_message(const PGresult* result) {
  const char* primary = PQresultErrorField(result, PG_DIAG_MESSAGE_PRIMARY);
  const char* detail = PQresultErrorField(result, PG_DIAG_MESSAGE_DETAIL);
  std::string message = message_of(primary != nullptr ? primary : PQresultErrorMessage(result));
  if (detail != nullptr) message += " (" + message_of(detail) + ")";
  return message;
}

ServerError server_error(const PGresult* result) {
  const char* state = PQresultErrorField(result, PG_DIAG_SQLSTATE);
  return ServerError(error_message(result), state != nullptr ? state : "");
}

}  // namespace

std::int64_t Result::number(std::size_t row, int column) const {
  const std::string_view text = raw(row, column);
  std::int64_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size()) throw DamagedError("a stored number is none");
  return value;
}

// from_chars() of a double needs a newer library than Clang 14 can bring; the field ends in a NUL.
double Result::real(std::size_t row, int column) const {
  return std::strtod(raw(row, column).data(), nullptr);
}

std::string shown_address(const std::string& url) {
  const std::string host = parameter_of(url, "host");
  const std::string port = parameter_of(url, "port");
  const std::string name = parameter_of(url, "dbname");
  return utils::printable_line("the database " + (name.empty() ? "of this user" : name) + " at " +
                               (host.empty() ? "this machine" : host) + (port.empty() ? "" : ":" + port));
}

// Notices, such as those of a migration, would otherwise go to the standard error.
Connection::Connection(const Options& options) : connection_(connect(options)) {
  if (!has_connection()) {
    const std::string message = message_of(PQerrorMessage(connection_.get()));
    throw utils::Error(message + advice_on_connecting(message));
  }
  PQsetNoticeProcessor(
      connection_.get(), [](void*, const char*) {}, nullptr);
  PQsetnonblocking(connection_.get(), 1);
  // `timezone` and the forms of values do not depend on how the server is set up.
  execute(
      "SET search_path = ossilar; SET timezone = 'UTC'; SET bytea_output = 'hex'; SET extra_float_digits = 3;"
      " SET standard_conforming_strings = on; SET default_transaction_isolation = 'read committed';"
      " SET lock_timeout = '10s'; SET synchronous_commit = on");
}

void Connection::send(const Statement& statement) {
  std::array<char, 32> name{};
  std::snprintf(name.data(), name.size(), "s%p", static_cast<const void*>(statement.sql));
  PGconn* connection = connection_.get();
  if (prepared_.insert(statement.sql).second &&
      PQsendPrepare(connection, name.data(), statement.sql, 0, nullptr) == 0) {
    lost();
  }
  std::vector<const char*> values;
  values.reserve(statement.values.size());
  for (const Value& value : statement.values) values.push_back(value.c_str());
  if (PQsendQueryPrepared(connection, name.data(), static_cast<int>(values.size()), values.data(), nullptr,
                          nullptr, 0) == 0) {
    lost();
  }
}

// Every statement has a result, or two where it is prepared first; each is followed by a null, and all by the
// end of the pipeline. After a failure the rest is answered as aborted, preparations too.
std::vector<Result> Connection::run(const std::vector<Statement>& statements, const Wait& wait) {
  const std::lock_guard lock(mutex_);
  PGconn* connection = connection_.get();
  if (!has_connection() || PQenterPipelineMode(connection) == 0) lost();
  std::vector<const char*> preparing;  // for each result the statement that is prepared, or null
  preparing.reserve(statements.size() * 2);
  for (const Statement& statement : statements) {
    if (prepared_.count(statement.sql) == 0) preparing.push_back(statement.sql);
    preparing.push_back(nullptr);
    send(statement);
  }
  if (PQpipelineSync(connection) == 0) lost();
  ++round_trips_;
  std::vector<Result> results;
  results.reserve(statements.size());
  std::optional<ServerError> failure;
  const auto deadline = Clock::now() + wait.patience;
  for (const char* prepared : preparing) {
    PGresult* found = next_result(wait, deadline);
    if (found == nullptr) lost();
    Result result(found);
    const ExecStatusType status = PQresultStatus(found);
    if (status == PGRES_FATAL_ERROR && !failure) failure = server_error(found);
    if (prepared == nullptr) {
      results.push_back(std::move(result));
    } else if (status != PGRES_COMMAND_OK) {
      prepared_.erase(prepared);
    }
    const Result end(next_result(wait, deadline));
  }
  const Result sync(next_result(wait, deadline));
  if (!has_connection() || PQexitPipelineMode(connection) == 0) lost();
  if (failure) throw *failure;
  return results;
}

void Connection::execute(const std::string& sql) {
  const std::lock_guard lock(mutex_);
  execute_alone(sql);
}

void Connection::execute_alone(const std::string& sql) {
  if (!has_connection() || PQsendQuery(connection_.get(), sql.c_str()) == 0) lost();
  ++round_trips_;
  std::optional<ServerError> failure;
  const Wait wait;
  const auto deadline = Clock::now() + wait.patience;
  while (PGresult* found = next_result(wait, deadline)) {
    const Result result(found);
    if (PQresultStatus(found) == PGRES_FATAL_ERROR && !failure) failure = server_error(found);
    if (!has_connection()) lost();
  }
  if (!has_connection()) lost();
  if (failure) throw *failure;
}

// An empty text is answered in a transaction that failed too. A connection that is in use needs no sign.
void Connection::ping() {
  const std::unique_lock lock(mutex_, std::try_to_lock);
  if (!lock || !has_connection()) return;
  try {
    execute_alone("");
  } catch (const utils::Error&) {
    return;
  }
}

bool Connection::is_open() const {
  const std::lock_guard lock(mutex_);
  return has_connection();
}

bool Connection::is_in_transaction() const {
  const std::lock_guard lock(mutex_);
  return PQtransactionStatus(connection_.get()) != PQTRANS_IDLE;
}

std::size_t Connection::round_trips() const {
  const std::lock_guard lock(mutex_);
  return round_trips_;
}

PGresult* Connection::next_result(const Wait& wait, Clock::time_point deadline) {
  PGconn* connection = connection_.get();
  while (PQflush(connection) > 0 || PQisBusy(connection) != 0) {
    wait_for_input(wait, deadline);
    if (PQconsumeInput(connection) == 0) lost();
  }
  return PQgetResult(connection);
}

// Reads while it writes: a server that cannot send its answers does not read on.
void Connection::wait_for_input(const Wait& wait, Clock::time_point deadline) {
  const bool writes = PQflush(connection_.get()) > 0;
  pollfd socket{.fd = PQsocket(connection_.get()),
                .events = static_cast<short>(writes ? POLLIN | POLLOUT : POLLIN),
                .revents = 0};
  const int ready = poll(&socket, 1, static_cast<int>(kLook.count()));
  if (ready < 0 && errno != EINTR) lost();
  if (ready > 0) return;
  if (Clock::now() >= deadline) lost();
  if (wait.during && wait.during()) cancel();
}

// On a connection of its own, as the protocol has it. That the cancellation comes too late shows as a result.
void Connection::cancel() {
  std::array<char, 256> error{};
  const std::unique_ptr<PGcancel, decltype(&PQfreeCancel)> request(PQgetCancel(connection_.get()),
                                                                   &PQfreeCancel);
  if (request) PQcancel(request.get(), error.data(), static_cast<int>(error.size()));
}

// The socket is closed, so that the server ends what this connection had begun, and is_open() is false.
void Connection::lost() {
  std::string message = message_of(PQerrorMessage(connection_.get()));
  if (has_connection()) message = "the server does not answer";
  connection_.reset();  // libpq takes null for a connection that is not open
  throw ConnectionLost("the connection is lost: " + message);
}

}  // namespace ossilar::store::postgresql
