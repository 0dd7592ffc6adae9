// What an operation works with: a connection, the snapshots of a store, and the revision. Internal to this
// room.
//
// An operation is mostly one round trip: what has to come before its statements, as a savepoint, is sent with
// them.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "ossilar/store/postgresql/connection.h"
#include "ossilar/utils/json.h"
#include "ossilar/utils/snapshot_map.h"

namespace ossilar::store::postgresql {

// The entries of one kind of rows of a branch as they were at a revision; everything up to it is included.
struct Snapshot {
  utils::SnapshotMap<Map> entries;
  std::int64_t revision = 0;
};

// Snapshots by branch. Copies are cheap: the entries are shared.
struct Snapshots {
  std::map<std::string, Snapshot> pages;
  std::map<std::string, Snapshot> digests;
};

inline constexpr const char* kCommit = "COMMIT";

// Thread-safety: one thread. Lifetime: connection and snapshots outlive it.
class Session {
 public:
  // For reading outside a transaction.
  Session(Connection& connection, Snapshots& last) : connection_(connection), last_(last) {}
  // Within a transaction, which keeps all other writers out and began at the revision `begun`; it stands at
  // `revision` now. `first` is sent before the first statement.
  Session(Connection& connection, Snapshots& last, std::int64_t begun, std::int64_t revision,
          std::vector<Statement> first)
      : connection_(connection),
        last_(last),
        first_(std::move(first)),
        is_in_transaction_(true),
        begun_(begun),
        revision_(revision) {}

  // Sends statements whose results nobody needs with the next ones, to spare a round trip. What the server
  // refuses of them fails the transaction, which is why run() is for what may be taken back alone.
  void send(std::vector<Statement> statements);
  // What send() left.
  std::vector<Statement> take_unsent() { return std::exchange(first_, {}); }
  // One round trip. The results are those of `statements`.
  std::vector<Result> run(std::vector<Statement> statements);
  Result run_one(Statement statement);
  // Reads that must see one state of the database.
  std::vector<Result> read_together(std::vector<Statement> statements);

  Snapshots& last() { return last_; }
  bool is_in_transaction() const { return is_in_transaction_; }
  // Of a transaction: the revision at which it began, and that of its last change.
  std::int64_t begun() const { return begun_; }
  std::int64_t revision() const { return revision_; }
  // The revision for what the next statements change; it is stored with them.
  std::int64_t next_revision();
  // Whether anything was sent.
  bool has_begun() const { return has_begun_; }

 private:
  Connection& connection_;
  Snapshots& last_;
  std::vector<Statement> first_;  // sent before the next statements
  bool is_in_transaction_ = false;
  bool has_begun_ = false;
  std::int64_t begun_ = 0;
  std::int64_t revision_ = 0;
};

}  // namespace ossilar::store::postgresql
