// Each turn has a connection of its own, as the lock belongs to a session. It has no heartbeat: the server
// frees the turn of a saver that drafts for long, as with a slow embedding service, which loses nothing by
// it.
#include "ossilar/store/postgresql/server_turns.h"

#include <utility>

#include "ossilar/store/postgresql/advisory_key.h"
#include "ossilar/utils/logging.h"

namespace ossilar::store::postgresql {
namespace {

const utils::Logger turns_logger("ossilar.store.turns");

// Without a limit for this wait alone: it is cancelled from here.
constexpr const char* kTakeTurnAtPage =
    "SELECT set_config('lock_timeout', '0', false), pg_advisory_lock($1::bigint),"
    " set_config('lock_timeout', '10s', false), set_config('idle_session_timeout', '4s', false)";
constexpr const char* kEndTurn =
    "SELECT pg_advisory_unlock($1::bigint), set_config('idle_session_timeout', '0', false)";
// How much longer than the wait the server may take to answer.
constexpr std::chrono::milliseconds kGraceForTurn(5000);

// A turn that was lost with its connection has ended already.
void end_turn(Connections& pool, std::shared_ptr<Connection> connection, std::int64_t key) {
  try {
    const Connections::Lease lease(pool, std::move(connection), false);
    lease->run_one({.sql = kEndTurn, .values = {key}});
  } catch (const std::exception&) {  // nothing depends on it
  }
}

}  // namespace

// When the turn is not had, the connection is dropped: a wait that was cancelled at the very moment when the
// lock came would keep it.
PageTurns::Turn ServerTurns::take(const std::string& page_id, std::chrono::milliseconds patience,
                                  const utils::Task& task) {
  const std::int64_t key = advisory_key("ossilar turn at " + page_id + " of " + branch_);
  const auto deadline = Connection::Clock::now() + patience;
  const auto is_over = [&] { return task.is_cancelled() || Connection::Clock::now() >= deadline; };
  try {
    auto connection = connections_->lend().take();
    connection->run({{.sql = kTakeTurnAtPage, .values = {key}}},
                    {.during = is_over, .patience = patience + kGraceForTurn});
    return {this, [pool = connections_, connection, key](void*) { end_turn(*pool, connection, key); }};
  } catch (const utils::Error& error) {
    task.check();
    turns_logger.info("a save goes on without a turn: %s", {error.what()});
    return nullptr;
  }
}

}  // namespace ossilar::store::postgresql
