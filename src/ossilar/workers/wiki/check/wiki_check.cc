// The check is tried first, and its failure says that the database is damaged: that is known only once all of
// it was read, which check_open_wiki() does. A damaged database is moved away and not removed, as it may hold
// what no file has, stale marks for one; then the same check runs again with a new database.
//
// The lock for that is taken here and not by a Wiki: a Wiki cannot be opened over a damaged database. Under
// the lock the damage is looked at once more, for two reasons: see is_damaged() and set_aside().
#include "ossilar/workers/wiki/check/wiki_check.h"

#include <algorithm>
#include <exception>
#include <functional>
#include <future>
#include <iterator>
#include <memory>
#include <system_error>
#include <utility>

#include "ossilar/store/file_lock.h"
#include "ossilar/store/sqlite/sqlite_store.h"
#include "ossilar/utils/files.h"
#include "ossilar/workers/wiki/check/adoption.h"
#include "ossilar/workers/wiki/check/arrivals.h"
#include "ossilar/workers/wiki/check/inspection.h"
#include "ossilar/workers/wiki/check/repair.h"
#include "ossilar/workers/wiki/host/open_wiki.h"

namespace ossilar::workers::wiki {
namespace {

namespace fs = std::filesystem;

constexpr const char* kDatabaseName = ".ossilar/index.db";

// The message of a StorageError without its path and advice, which a finding has as fields of their own.
std::string damage_in(std::string message, const fs::path& database) {
  const std::string path = database.string() + ": ";
  if (message.starts_with(path)) message.erase(0, path.size());
  return message.substr(0, message.find("; `ossilar check"));
}

Finding damaged_database(const std::string& damage) {
  return {Fault::database,
          kDatabaseName,
          "",
          "is damaged: " + damage,
          "ossilar check --fix moves it away and rebuilds it from the wiki's files",
          true};
}

// The first name that is free for all three files of the database. Free without a race: the caller holds the
// write lock.
fs::path free_name(const fs::path& database) {
  for (int number = 1;; ++number) {
    fs::path name = database;
    name += ".damaged-" + std::to_string(number);
    if (!utils::is_there(name) && !utils::is_there(name.string() + "-wal") &&
        !utils::is_there(name.string() + "-shm"))
      return name;
  }
}

// The log and its index are only there while the database is open or after a crash.
void move_if_there(const fs::path& from, const fs::path& to) {
  std::error_code error;
  fs::rename(from, to, error);
  if (error && error != std::errc::no_such_file_or_directory) {
    throw utils::IoError("cannot move " + from.string() + " to " + to.string(), error.value());
  }
}

// The write-ahead log goes first. A kill in between then leaves a database without its log, which is an older
// state; a log without its database would be read as the new one's. Returns the name that the database is
// kept under.
std::string set_aside_database(const fs::path& database) {
  const fs::path aside = free_name(database);
  for (const char* part : {"-wal", "-shm", ""})
    move_if_there(database.string() + part, aside.string() + part);
  return aside.filename().string();
}

// Asked again although a check has found damage: a disk that failed once can look like damage to SQLite.
bool is_damaged(const fs::path& database) {
  try {
    return store::open_sqlite_store(database)->damage().has_value();
  } catch (const store::StorageError& error) {
    if (!error.damaged()) throw;
    return true;
  }
}

// Returns the name that the database is kept under; "" when there is nothing to set aside: another process
// has done so meanwhile, which shows as another file than `found`, or it is sound after all. The lock is
// released by hand, so that a failure of the release reaches the caller.
std::string set_aside(const WikiPaths& paths, const WikiConfig& config, const std::string& writer,
                      const utils::FileStamp& found) {
  store::FileLock lock(
      {.path = paths.lock(), .timeout = config.lock_timeout, .holder = writer, .guards_folder = true});
  std::string kept;
  lock.acquire(true);
  try {
    const fs::path database = paths.database();
    if (utils::stamp_of(database).is_same_file(found) && is_damaged(database))
      kept = set_aside_database(database);
  } catch (...) {
    lock.release();
    throw;
  }
  lock.release();
  return kept;
}

// What a repair is said to have fixed is what a second inspection no longer finds, not what it set out to do.
std::vector<Finding> without(const std::vector<Finding>& findings, const std::vector<Finding>& left) {
  std::vector<Finding> gone;
  std::copy_if(findings.begin(), findings.end(), std::back_inserter(gone), [&](const Finding& finding) {
    return finding.fixable && std::find(left.begin(), left.end(), finding) == left.end();
  });
  return gone;
}

}  // namespace

bool CheckReport::is_clean() const {
  return std::all_of(findings.begin(), findings.end(), [this](const Finding& finding) {
    return !is_strict && kind_of(finding.fault).leaves_clean;
  });
}

namespace {

// Runs `work`, which reads the wiki, while the database is looked through on another thread. Damage comes
// before any failure of the work, which may only be what the damage led to; what the work found is no use
// then. It is thrown, so that damage found here goes the same way as damage that an earlier query ran into.
void with_sound_database(Wiki& wiki, const std::function<void()>& work) {
  auto looking = std::async(std::launch::async, [&wiki] { return wiki.store().damage(); });
  std::exception_ptr failure;
  try {
    work();
  } catch (...) {
    failure = std::current_exception();
  }
  if (const auto damage = looking.get())
    throw store::StorageError(wiki.paths().database().string() + ": " + *damage, true);
  if (failure) std::rethrow_exception(failure);
}

// Arrivals are taken over first, before the lock is taken for the check: they are not faults, and would
// otherwise be reported as such. What was taken over is not part of the report.
CheckReport check_open_wiki(Wiki& wiki, bool fix) {
  adopt_arrivals(wiki, WhenBusy::wait);
  CheckReport report;
  wiki.with_write_lock(true, [&] {
    std::unique_ptr<Inspection> inspection;
    with_sound_database(wiki, [&] {
      inspection = std::make_unique<Inspection>(wiki);
      report.findings = inspection->run();
    });
    if (fix && !report.findings.empty()) {
      Repair(wiki, inspection->manifest(), report.findings).run();
      std::vector<Finding> left = Inspection(wiki).run();
      report.fixed = without(report.findings, left);
      report.findings = std::move(left);
    }
  });
  report.pages = wiki.stored_pages().size();
  return report;
}

}  // namespace

namespace {

// Whether the finding is one that was asked for.
bool is_asked_for(const Finding& finding, const CheckOptions& options) {
  const auto names = [&](const std::vector<std::string>& kinds) {
    return std::find(kinds.begin(), kinds.end(), fault_name(finding.fault)) != kinds.end();
  };
  return (options.only.empty() || names(options.only)) && !names(options.ignored);
}

CheckReport check_all(const fs::path& root, const CheckOptions& options);

CheckReport as_asked(CheckReport report, const CheckOptions& options) {
  report.is_strict = options.is_strict;
  for (auto* findings : {&report.fixed, &report.findings})
    std::erase_if(*findings, [&](const Finding& finding) { return !is_asked_for(finding, options); });
  return report;
}

CheckReport report_of_damage(const std::string& damage) {
  return {.pages = 0, .fixed = {}, .findings = {damaged_database(damage)}, .is_strict = false};
}

}  // namespace

CheckReport check_wiki(const fs::path& root, const CheckOptions& options) {
  return as_asked(check_all(root, options), options);
}

CheckReport check_wiki(Wiki& wiki, const CheckOptions& options) {
  try {
    wiki.prepare(options.indexing);
    return as_asked(check_open_wiki(wiki, false), options);
  } catch (const store::StorageError& error) {
    if (!error.damaged()) throw;
    return as_asked(report_of_damage(damage_in(error.what(), wiki.paths().database())), options);
  }
}

namespace {

CheckReport check_all(const fs::path& root, const CheckOptions& options) {
  const WikiConfig config = load_config(root / "ossilar.toml");
  const WikiPaths paths = wiki_paths(root, config);
  // Before the database is opened: this says later which file was the damaged one.
  const utils::FileStamp database = utils::stamp_of(paths.database());
  const auto check = [&] {
    const auto wiki = open_wiki(root, options.writer);
    wiki->prepare(options.indexing);
    return check_open_wiki(*wiki, options.fix);
  };
  std::string damage;
  try {
    return check();
  } catch (const store::StorageError& error) {
    if (!error.damaged()) throw;
    damage = damage_in(error.what(), paths.database());
  }
  if (!options.fix) return report_of_damage(damage);
  // This process has closed the database by now: the wiki of check() is gone.
  const std::string kept = set_aside(paths, config, options.writer, database);
  CheckReport report = check();
  if (!kept.empty())
    report.fixed.insert(report.fixed.begin(), damaged_database(damage + "; it is kept as .ossilar/" + kept));
  return report;
}

}  // namespace

}  // namespace ossilar::workers::wiki
