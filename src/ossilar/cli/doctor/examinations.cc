#include "ossilar/cli/doctor/examinations.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <functional>
#include <set>

#include "ossilar/cli/client_files.h"
#include "ossilar/cli/client_setup.h"
#include "ossilar/source/checkout.h"
#include "ossilar/source/ctags.h"
#include "ossilar/source/listing.h"
#include "ossilar/source/tree_watch.h"
#include "ossilar/utils/error.h"
#include "ossilar/utils/files.h"
#include "ossilar/workers/wiki/config.h"

namespace ossilar::cli {
namespace {

namespace fs = std::filesystem;

// Below this a save of a large wiki may not find room for its database.
constexpr std::uintmax_t kLeastSpace = std::uintmax_t{64} << 20U;
constexpr std::uintmax_t kMiB = std::uintmax_t{1} << 20U;

Examined fine(std::string found) { return {.about = {}, .found = std::move(found), .advice = {}}; }
Examined odd(std::string found, std::string advice) {
  return {.about = {}, .is_fine = false, .found = std::move(found), .advice = std::move(advice)};
}

Examined git(const fs::path& root) {
  const source::Checkout checkout = source::read_checkout(root);
  if (!checkout.in_git)
    return fine("no git repository; pages are kept for one branch, and moved lines are found by text alone");
  return fine("branch " + checkout.branch +
              (checkout.commit.empty() ? ", no commit yet" : ", commit " + checkout.commit.substr(0, 12)));
}

Examined configuration(const fs::path& root) {
  const auto config = workers::wiki::load_config(root / "ossilar.toml");
  const std::string& variable = config.embedding_api_key_env;
  if (config.embedding_provider == "http" && !variable.empty() && std::getenv(variable.c_str()) == nullptr) {
    return odd("[embedding] api_key_env names " + variable + ", which is not set",
               "export " + variable + "=KEY before you start ossilar");
  }
  return fine(utils::is_there(root / "ossilar.toml") ? "ossilar.toml is right"
                                                     : "no ossilar.toml: the defaults");
}

Examined wiki(const fs::path& root) {
  if (!utils::is_there(root / ".ossilar")) return odd("there is none here yet", "ossilar init");
  return fine(workers::wiki::load_config(root / "ossilar.toml").dir + "/");
}

Examined symbols() {
  const source::SymbolTool tool = source::find_symbol_tool();
  if (!tool.problem.empty()) {
    return odd(
        tool.problem,
        "install universal-ctags (Debian, Ubuntu: apt install universal-ctags; Fedora: dnf install ctags)");
  }
  return fine("universal-ctags");
}

// Two files that are gone at the end, whatever happens.
class Trial {
 public:
  explicit Trial(const fs::path& folder) : one_(folder / name(1)), two_(folder / name(2)) {
    create(one_);
    create(two_);
  }
  Trial(const Trial&) = delete;
  Trial& operator=(const Trial&) = delete;
  ~Trial() {
    unlink(one_.c_str());
    unlink(two_.c_str());
  }
  bool can_swap() const {
    return renameat2(AT_FDCWD, one_.c_str(), AT_FDCWD, two_.c_str(), RENAME_EXCHANGE) == 0;
  }
  // Whether a lock that is had keeps another out, through a descriptor of its own as another process has it.
  bool locks_exclude() const {
    const utils::UniqueFd holder(open(one_.c_str(), O_RDWR | O_CLOEXEC));
    const utils::UniqueFd other(open(one_.c_str(), O_RDWR | O_CLOEXEC));
    return flock(holder.get(), LOCK_EX | LOCK_NB) == 0 && flock(other.get(), LOCK_EX | LOCK_NB) != 0 &&
           errno == EWOULDBLOCK;
  }

 private:
  static std::string name(int number) {
    return "doctor-" + std::to_string(getpid()) + "-" + std::to_string(number);
  }
  static void create(const fs::path& file) {
    const utils::UniqueFd made(open(file.c_str(), O_CREAT | O_EXCL | O_RDWR | O_CLOEXEC, 0600));
    if (!made || write(made.get(), "x", 1) != 1)
      throw utils::IoError("cannot write to " + file.string(), errno);
  }
  fs::path one_;
  fs::path two_;
};

Examined file_system(const fs::path& root) {
  const std::uintmax_t free = fs::space(root).available;
  const std::string space = std::to_string(free / kMiB) + " MiB are free";
  if (free < kLeastSpace) return odd(space, "free some space: a save writes its page, its row and the lists");
  if (!utils::is_there(root / ".ossilar")) return fine(space);
  if (!Trial(root / ".ossilar").can_swap()) {
    return odd("two files cannot swap places here, so an edit in the very moment of a save may be lost",
               "keep the repository on ext4, xfs, btrfs or tmpfs");
  }
  return fine(space + ", files can swap places");
}

Examined locks(const fs::path& root) {
  if (!utils::is_there(root / ".ossilar")) return fine("not tried, as there is no wiki yet");
  if (!Trial(root / ".ossilar").locks_exclude()) {
    return odd("a lock keeps nobody out here, so two saves at a time may mix",
               "keep the repository on a local disk, or write the wiki from one process only");
  }
  return fine("flock(2) keeps others out");
}

// All folders above the files, as a session would watch them.
std::set<std::string> folders_of(const fs::path& root) {
  source::Tree tree(root);
  std::set<std::string> folders{""};
  for (const source::Listed& file : source::list_files(root, source::Exclusions({".ossilar"}), tree).files) {
    for (std::size_t at = file.path.find('/'); at != std::string::npos; at = file.path.find('/', at + 1))
      folders.insert(file.path.substr(0, at));
  }
  return folders;
}

Examined watches(const fs::path& root) {
  const auto folders = folders_of(root);
  source::TreeWatch watch(root);
  watch.add(folders);
  if (watch.is_trusted()) return fine(std::to_string(folders.size()) + " folder(s) can be watched");
  return odd("the " + std::to_string(folders.size()) +
                 " folders of the source cannot be watched, so a session scans all files for each save",
             "on a local disk: sysctl fs.inotify.max_user_watches=524288 (and max_user_instances=512)");
}

Examined clients(const fs::path& root) {
  std::string set_up;
  for (const Client& client : ossilar::cli::clients()) {
    if (!client.in_repository() || !utils::is_there(root / client.file)) continue;
    if (!ClientFiles(root, {client.name}).is_entered()) {
      return odd(std::string(client.file) + " does not start ossilar",
                 std::string("ossilar init --client ") + client.name);
    }
    set_up += (set_up.empty() ? "" : ", ") + std::string(client.name);
  }
  if (set_up.empty()) return fine("none is set up in the repository; ossilar init --client NAME does it");
  if (!is_on_path()) {
    return odd(set_up + " start ossilar by its name, and it is not on your PATH",
               "put the program's folder on PATH");
  }
  return fine(set_up);
}

// Whatever is thrown is what was found: doctor is for machines where things go wrong.
Examined examined(const char* about, const std::function<Examined()>& examination) {
  Examined result;
  try {
    result = examination();
  } catch (const std::exception& error) {
    result = odd(error.what(), "mend what the message names");
  }
  result.about = about;
  return result;
}

}  // namespace

std::vector<Examined> examine(const fs::path& root) {
  return {examined("git", [&] { return git(root); }),
          examined("configuration", [&] { return configuration(root); }),
          examined("wiki", [&] { return wiki(root); }),
          examined("symbols", [] { return symbols(); }),
          examined("file system", [&] { return file_system(root); }),
          examined("locks", [&] { return locks(root); }),
          examined("watches", [&] { return watches(root); }),
          examined("clients", [&] { return clients(root); })};
}

}  // namespace ossilar::cli
