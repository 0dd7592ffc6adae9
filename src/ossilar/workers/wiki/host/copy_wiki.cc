// The machine's lock is held throughout, as nobody here may change page files or the local database
// meanwhile. The lock of a shared database is a branch's, so each branch has stores of its own, which write
// over the connection that holds its lock.
#include "ossilar/workers/wiki/host/copy_wiki.h"

#include <memory>
#include <string_view>
#include <utility>
#include <vector>

#include "ossilar/source/checkout.h"
#include "ossilar/store/file_lock.h"
#include "ossilar/store/postgresql/postgresql_store.h"
#include "ossilar/store/sqlite/sqlite_store.h"
#include "ossilar/utils/files.h"
#include "ossilar/workers/wiki/host/open_wiki.h"
#include "ossilar/workers/wiki/host/shared_files.h"

namespace ossilar::workers::wiki {
namespace {

constexpr const char* kCopier = "ossilar store copy";
constexpr std::string_view kShared = "postgresql://";

// Holds a lock to the end of its scope; none for a store without one of its own.
class Held {
 public:
  explicit Held(store::WriteLock* lock) : lock_(lock) {
    if (lock_ != nullptr) lock_->acquire(true);
  }
  // What was written is on disk by then, so a lock that cannot be given back does no harm: it goes with its
  // connection.
  ~Held() {
    try {
      if (lock_ != nullptr) lock_->release();
    } catch (const utils::Error&) {
    }
  }
  Held(const Held&) = delete;
  Held& operator=(const Held&) = delete;

 private:
  store::WriteLock* const lock_;
};

void require_name(const std::string& name) {
  if (name == kLocalStore || name.starts_with(kShared)) return;
  throw utils::ConfigError("\"" + name + "\" names no store; expected local or postgresql://...");
}

// Copies one branch at a time from one store into the other.
class Copier {
 public:
  Copier(WikiPaths paths, WikiConfig config, std::string from, std::string to)
      : paths_(std::move(paths)), config_(std::move(config)), from_(std::move(from)), to_(std::move(to)) {}

  // Looked at before anything is written, as a branch that comes last may be another wiki's.
  std::vector<std::string> branches() const {
    const store::SharedStore from = open(from_, "");
    const store::SharedStore to = open(to_, "");
    std::vector<std::string> branches = from.store->branches();
    if (branches.empty()) {
      throw store::CopyRefused("there is no wiki to copy in " +
                               (from_ == kLocalStore ? paths_.database().string() : "that database"));
    }
    for (const std::string& branch : to.store->branches())
      store::require_same_wiki(*from.store, *to.store, branch);
    return branches;
  }

  store::CopyCounts copy(const std::string& branch, const utils::Progress& progress) const {
    const store::SharedStore from = open(from_, branch);
    const store::SharedStore to = open(to_, branch);
    const Held source(from.lock.get());
    const Held target(to.lock.get());
    return store::copy_branch(*from.store, *to.store, branch, progress);
  }

  void bring_in_files(const std::string& branch) const {
    const auto local = store::open_sqlite_store(paths_.database());
    const KeptTexts replaced(paths_.replaced());
    WikiLists lists(paths_.wiki, paths_.pages);
    SharedFiles({.paths = paths_, .branch = branch, .store = *local, .replaced = replaced, .lists = lists})
        .bring_in();
  }

 private:
  store::SharedStore open(const std::string& name, const std::string& branch) const {
    auto local = store::open_sqlite_store(paths_.database());
    if (name == kLocalStore) return {.store = std::move(local), .lock = nullptr};
    return store::open_postgresql_store(
        {.url = name, .program = kCopier, .branch = branch, .lock_timeout = config_.lock_timeout},
        std::move(local));
  }

  const WikiPaths paths_;
  const WikiConfig config_;
  const std::string from_;
  const std::string to_;
};

void add(store::CopyCounts& all, const store::CopyCounts& some) {
  all.pages += some.pages;
  all.versions += some.versions;
  all.passages += some.passages;
  all.texts += some.texts;
  all.present += some.present;
}

}  // namespace

WikiCopy copy_wiki(const std::filesystem::path& root, const std::string& from, const std::string& to,
                   const utils::Progress& progress) {
  require_name(from);
  require_name(to);
  if (from == to) throw utils::ConfigError("source and target are the same store");
  const WikiConfig config = load_config(root / "ossilar.toml");
  const WikiPaths paths = wiki_paths(root, config);
  if (!utils::is_there(paths.state))
    throw utils::ConfigError(root.string() + " has no wiki yet; set it up with: ossilar init");
  store::FileLock machines(
      {.path = paths.lock(), .timeout = config.lock_timeout, .holder = kCopier, .guards_folder = true});
  const Held held(&machines);
  const Copier copier(paths, config, from, to);
  WikiCopy copied;
  for (const std::string& branch : copier.branches()) {
    add(copied.counts, copier.copy(branch, progress));
    ++copied.branches;
  }
  if (to == kLocalStore) copier.bring_in_files(source::read_checkout(root).branch);
  return copied;
}

}  // namespace ossilar::workers::wiki
