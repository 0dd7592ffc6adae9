#include "ossilar/store/postgresql/session.h"

#include <iterator>
#include <utility>

namespace ossilar::store::postgresql {
namespace {

constexpr const char* kReadOneState = "BEGIN ISOLATION LEVEL REPEATABLE READ READ ONLY";
constexpr const char* kSetRevision = "UPDATE counter SET revision = $1";

}  // namespace

std::vector<Result> Session::run(std::vector<Statement> statements) {
  std::vector<Statement> all = std::exchange(first_, {});
  const auto skipped = static_cast<std::ptrdiff_t>(all.size());
  std::move(statements.begin(), statements.end(), std::back_inserter(all));
  has_begun_ = true;
  std::vector<Result> results = connection_.run(all);
  results.erase(results.begin(), results.begin() + skipped);
  return results;
}

void Session::send(std::vector<Statement> statements) {
  std::move(statements.begin(), statements.end(), std::back_inserter(first_));
}

Result Session::run_one(Statement statement) {
  std::vector<Statement> statements;
  statements.push_back(std::move(statement));
  return std::move(run(std::move(statements)).front());
}

// Within a transaction nobody else writes. Outside, each statement would see a state of its own.
std::vector<Result> Session::read_together(std::vector<Statement> statements) {
  if (is_in_transaction_) return run(std::move(statements));
  statements.insert(statements.begin(), Statement{.sql = kReadOneState});
  statements.push_back({.sql = kCommit});
  std::vector<Result> results = run(std::move(statements));
  results.erase(results.begin());
  results.pop_back();
  return results;
}

std::int64_t Session::next_revision() {
  first_.push_back({.sql = kSetRevision, .values = {++revision_}});
  return revision_;
}

}  // namespace ossilar::store::postgresql
