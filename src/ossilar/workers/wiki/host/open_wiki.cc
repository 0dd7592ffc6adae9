// The order matters. The configuration comes first, as it names the wiki's directory. Then symbolic links on
// the way to that directory are refused, before anything is created in it: otherwise directories and files
// would be made wherever a link leads. Opening looks for `.ossilar` before it opens the store, so that a
// repository without a wiki gets the advice to run init instead of a failure to open a database.
#include "ossilar/workers/wiki/host/open_wiki.h"

#include <cstdlib>
#include <string_view>

#include "ossilar/search/http_embedder.h"
#include "ossilar/source/checkout.h"
#include "ossilar/store/postgresql/postgresql_store.h"
#include "ossilar/store/sqlite/sqlite_store.h"
#include "ossilar/utils/atomic_file.h"
#include "ossilar/utils/files.h"

namespace ossilar::workers::wiki {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view kConfigTemplate =
    R"(# The settings of ossilar for this repository. Commit this file. The values shown are the defaults.

[wiki]
# dir = "wiki"                  # the wiki's folder
# follow = false                # true: sessions follow moved citations when they read or save a page
# diagrams = true
# min_citations_per_page = 2    # a page with fewer valid citations is refused
# lock_timeout_s = 30

[store]
# url = "postgresql://wiki@host/wiki"    # for a team on several machines; default: a database in .ossilar

[history]
# versions = 20                 # of each page, for `ossilar log`, `diff` and `restore`

[embedding]
# provider = "local"            # or "http", for a service with the usual /v1/embeddings request:
# url = "https://host/v1"
# model = "name-of-the-model"
# api_key_env = "VARIABLE"      # the environment variable that holds the key, if one is needed

[steering]
# text = "For every page: who reads it, what matters, which words to use."

# Each [[page]] adds a page, or changes the planned one of the same id (see: ossilar plan).
# [[page]]
# id = "topics/error-handling"
# title = "Error handling"
# description = "How an error gets from where it happens to the user."
# type = "topic"
# sources = ["src/**/error*"]
# steering = "Name the exception types."
)";

// git's built-in union driver keeps the lines of both sides of a merge. Every entry of a list is a line of
// its own, so the union of two lists lists the pages of both. Patterns begin with "/": they are about the
// lists at the wiki's root and not about pages of the same name.
constexpr std::string_view kMergeAttributes =
    R"(# Lists that ossilar generates from the pages: git merges them line by line, and the next save rewrites them.
/index.md merge=union
/manifest.json merge=union
/lists/** merge=union
)";

// A dangling link is there too: exists() would follow it and say no.
void create_file(const fs::path& root, const std::string& name, std::string_view text,
                 std::vector<std::string>& created) {
  if (utils::is_there(root / name)) return;
  utils::atomic_write(root / name, text);
  created.push_back(name);
}

void create_directory(const fs::path& root, const std::string& name, std::vector<std::string>& created) {
  const bool present = utils::is_there(root / name);  // asked first, for the report alone
  utils::open_directory(root / name, utils::Missing::create);
  if (!present) created.push_back(name + "/");
}

std::unique_ptr<search::Embedder> make_embedder(const WikiConfig& config) {
  if (config.embedding_provider == "local") return search::make_local_embedder();
  if (config.embedding_provider != "http")
    throw utils::ConfigError("no embedder is made for the provider \"" + config.embedding_provider + "\"");
  return search::make_http_embedder({.url = config.embedding_url,
                                     .model = config.embedding_model,
                                     .key_variable = config.embedding_api_key_env});
}

// A database that machines share, with its lock; or the one of this machine, whose lock is the wiki's own.
store::SharedStore open_store(const WikiPaths& paths, const WikiConfig& config, const std::string& branch,
                              const std::string& writer) {
  auto local = store::open_sqlite_store(paths.database());
  const char* given = std::getenv("OSSILAR_STORE_URL");
  const std::string url = given != nullptr && *given != '\0' ? given : config.store_url;
  if (url.empty()) return {.store = std::move(local), .lock = nullptr};
  return store::open_postgresql_store(
      {.url = url, .program = writer, .branch = branch, .lock_timeout = config.lock_timeout},
      std::move(local));
}

fs::path config_file(const fs::path& root) { return root / "ossilar.toml"; }

}  // namespace

// Every component is looked at, not only the last: a link anywhere on the way may lead out of the
// repository.
WikiPaths wiki_paths(const fs::path& root, const WikiConfig& config) {
  fs::path so_far = root;
  for (const auto& part : fs::path(config.dir) / "pages") {
    so_far /= part;
    if (fs::symlink_status(so_far).type() == fs::file_type::symlink) {
      throw utils::ConfigError(so_far.string() +
                               " is a symbolic link; make it a directory, or set [wiki] dir in " +
                               config_file(root).string() + " to another folder");
    }
  }
  const fs::path wiki = root / config.dir;
  return {.root = root, .wiki = wiki, .pages = wiki / "pages", .state = root / ".ossilar"};
}

std::vector<std::string> set_up_wiki(const fs::path& root) {
  std::vector<std::string> created;
  create_file(root, "ossilar.toml", kConfigTemplate, created);
  const WikiConfig config = load_config(config_file(root));
  wiki_paths(root, config);  // for its refusal of symbolic links; the paths are not needed
  create_directory(root, config.dir + "/pages", created);
  create_file(root, config.dir + "/.gitattributes", kMergeAttributes, created);
  create_directory(root, ".ossilar", created);
  create_file(root, ".ossilar/.gitignore", "*\n", created);  // "*" covers this file too
  return created;
}

std::unique_ptr<Wiki> open_wiki(const fs::path& root, const std::string& writer, Process process) {
  WikiConfig config = load_config(config_file(root));
  WikiPaths paths = wiki_paths(root, config);
  if (!utils::is_there(paths.state)) {
    throw utils::ConfigError(root.string() + " has no wiki yet; set it up with: ossilar init");
  }
  const source::Checkout checkout = source::read_checkout(root);
  store::SharedStore shared = open_store(paths, config, checkout.branch, writer);
  auto embedder = make_embedder(config);
  return std::make_unique<Wiki>(Wiki::Services{.paths = std::move(paths),
                                               .config = std::move(config),
                                               .checkout = checkout,
                                               .store = std::move(shared.store),
                                               .embedder = std::move(embedder),
                                               .writer = writer,
                                               .shared_lock = std::move(shared.lock),
                                               .shared_turns = std::move(shared.turns),
                                               .stays = process == Process::stays});
}

}  // namespace ossilar::workers::wiki
