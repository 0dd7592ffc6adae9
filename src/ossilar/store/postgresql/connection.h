// A connection to the server over libpq, and what is asked over it. Internal to this room.
//
// Statements are sent together and answered together (libpq's pipeline mode), as what a save costs is mostly
// round trips: run() takes any number of statements and makes one.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <libpq-fe.h>

#include "ossilar/store/postgresql/values.h"
#include "ossilar/utils/error.h"

namespace ossilar::store::postgresql {

// The server refused a statement. The connection is usable, unless a transaction has to be rolled back first.
class ServerError : public utils::Error {
 public:
  ServerError(const std::string& message, std::string state, utils::Place place = utils::Place::current())
      : Error(message, place), state_(std::move(state)) {}
  // The SQLSTATE: https://www.postgresql.org/docs/15/errcodes-appendix.html
  const std::string& state() const { return state_; }

 private:
  std::string state_;
};

// The connection is gone: the server ended it, or does not answer. What was sent last may have been done.
class ConnectionLost : public utils::Error {
 public:
  explicit ConnectionLost(const std::string& message, utils::Place place = utils::Place::current())
      : Error(message, place) {}
};

// A statement and its parameters $1, $2, ... The text must outlive the connection, as string literals do: it
// is prepared at its first use and known by its address afterwards.
struct Statement {
  const char* sql;
  std::vector<Value> values = {};
};

// The rows that a statement gave. Fields are read by row and column from 0.
class Result {
 public:
  explicit Result(PGresult* result) : result_(result, &PQclear) {}
  std::size_t rows() const { return static_cast<std::size_t>(PQntuples(result_.get())); }
  bool is_null(std::size_t row, int column) const {
    return PQgetisnull(result_.get(), static_cast<int>(row), column) != 0;
  }
  std::string text(std::size_t row, int column) const { return text_of_stored(raw(row, column)); }
  std::string bytes(std::size_t row, int column) const { return bytes_of_stored(raw(row, column)); }
  std::int64_t number(std::size_t row, int column) const;
  double real(std::size_t row, int column) const;
  bool flag(std::size_t row, int column) const { return raw(row, column) == "t"; }

 private:
  std::string_view raw(std::size_t row, int column) const {
    return {PQgetvalue(result_.get(), static_cast<int>(row), column),
            static_cast<std::size_t>(PQgetlength(result_.get(), static_cast<int>(row), column))};
  }
  std::unique_ptr<PGresult, decltype(&PQclear)> result_;
};

// Thread-safety: any thread; the calls take turns. What belongs together, as a transaction does, is one
// thread's.
class Connection {
 public:
  using Clock = std::chrono::steady_clock;

  struct Options {
    std::string url;
    std::string program;  // what the server shows others of this connection: application_name
  };
  // How an answer is waited for.
  struct Wait {
    // Called every 50 ms meanwhile. When it gives true, the statement at work is cancelled, and fails as
    // query_canceled unless it was just done.
    std::function<bool()> during = {};
    // Statements of ours take milliseconds, and wait for others' transactions for ten seconds at most: a
    // server that says nothing for this long is cut off or hangs.
    std::chrono::milliseconds patience = std::chrono::seconds(60);
  };

  // Connects. Throws utils::Error that says why that failed and what to do; never shows a password.
  explicit Connection(const Options& options);

  // Sends the statements together and gives their results, one for each. Throws ServerError for the first
  // that fails; those after it are not run. Outside a transaction the statements are one transaction
  // together. Throws ConnectionLost.
  std::vector<Result> run(const std::vector<Statement>& statements, const Wait& wait);
  std::vector<Result> run(const std::vector<Statement>& statements) { return run(statements, Wait()); }
  // The result of one statement.
  Result run_one(Statement statement) { return std::move(run({std::move(statement)}).front()); }

  // Runs texts without parameters that are not prepared, as those of a schema are.
  void execute(const std::string& sql);
  // Tells the server that this end is alive, in whatever state the transaction is. Throws nothing: a
  // connection that is lost shows at its next use.
  void ping();

  // False once the connection was lost.
  bool is_open() const;
  bool is_in_transaction() const;
  // How often an answer was waited for.
  std::size_t round_trips() const;

 private:
  bool has_connection() const { return PQstatus(connection_.get()) == CONNECTION_OK; }
  void execute_alone(const std::string& sql);
  void send(const Statement& statement);
  PGresult* next_result(const Wait& wait, Clock::time_point deadline);
  void wait_for_input(const Wait& wait, Clock::time_point deadline);
  void cancel();
  [[noreturn]] void lost();

  mutable std::mutex mutex_;  // guards all that follows
  std::unique_ptr<PGconn, decltype(&PQfinish)> connection_;
  std::set<const char*> prepared_;
  std::size_t round_trips_ = 0;
};

// The address without a password, for messages.
std::string shown_address(const std::string& url);

}  // namespace ossilar::store::postgresql
