// The store in a PostgreSQL database, which many machines may share, and the write lock that belongs to it.
// host/open_wiki.cc opens it for a Wiki and sees no more of this room than this header.
#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "ossilar/store/page_turns.h"
#include "ossilar/store/repository.h"
#include "ossilar/store/write_lock.h"

namespace ossilar::store {

struct PostgresqlOptions {
  // postgresql://..., or "key=value ..."; what it leaves out comes from the usual variables (PGPASSWORD, ...)
  // and files (~/.pgpass) of PostgreSQL's programs
  std::string url;
  std::string program;  // who we are, for others' messages: "ossilar save"
  std::string branch;   // the lock's; the store serves all
  std::chrono::milliseconds lock_timeout{std::chrono::seconds(30)};
};

// What is written by the thread that holds `lock` goes over the connection that holds it: when the lock is
// lost with its connection, those writes fail.
struct SharedStore {
  std::unique_ptr<WikiStore> store;
  std::unique_ptr<WriteLock> lock;
  std::unique_ptr<PageTurns> turns = {};
};

// Makes or migrates the tables. What is this machine's alone, the records of its sources and the notes of its
// lists, is kept in `local`. Throws StorageError, in one line that says what to do, for a server that cannot
// be reached or refuses, and for a schema that is newer than this program knows or not ours.
//
// A write that throws is not stored, unless its message says that this is not known. That is rare: when the
// connection is lost during a commit, the store asks the server over another one what became of it.
//
// Thread-safety: may be called from any thread; the store as WikiStore, the lock as WriteLock.
SharedStore open_postgresql_store(const PostgresqlOptions& options, std::unique_ptr<WikiStore> local);

}  // namespace ossilar::store
