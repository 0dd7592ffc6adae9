// Reads all files, works out all new texts and only then writes: written one by one, a file that is refused
// would leave the clients before it set up although the command failed.
//
// What others check out names the program by its bare name and the repository as the client names it; paths
// of this machine would be wrong for everybody else. Paths of this machine are only printed.
#include "ossilar/cli/client_files.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <optional>
#include <system_error>

#include "ossilar/utils/atomic_file.h"
#include "ossilar/utils/error.h"
#include "ossilar/utils/files.h"
#include "ossilar/utils/text.h"

namespace ossilar::cli {
namespace {

namespace fs = std::filesystem;

// A configuration that a person writes has a few kilobytes. The limit, far above that, bounds what a wrong
// file in its place makes us read and parse.
constexpr std::size_t kLargestFile = std::size_t{1} << 20U;

// The bytes of `path`, "" when there is no such file or folder. Refuses a symbolic link: atomic_write() would
// refuse it too, but only after the wiki was created.
std::string bytes_of(const fs::path& path, const std::string& name) {
  try {
    const utils::UniqueFd directory = utils::open_directory(path.parent_path());
    // O_NONBLOCK: a pipe in the file's place must not block us.
    const utils::UniqueFd file(
        openat(directory.get(), path.filename().c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!file && errno == ELOOP)
      throw utils::IoError(name + " is a symbolic link; put a regular file in its place", ELOOP);
    if (!file) throw utils::IoError("cannot read " + name, errno);
    const auto text = utils::read_at_most(file.get(), kLargestFile, name);
    if (!text) throw utils::ConfigError(name + " is larger than 1 MiB, the limit for a configuration file");
    utils::require_utf8(*text, name);
    return *text;
  } catch (const utils::IoError& error) {
    if (error.error() == ENOENT) return {};
    throw;
  }
}

// The server by absolute paths, so that it starts from any folder and with any PATH. Where the system does
// not tell the program's own path, its name has to do.
Invocation on_this_machine(const fs::path& root) {
  std::error_code unknown;
  const fs::path program = fs::read_symlink("/proc/self/exe", unknown);
  return {.program = unknown ? "ossilar" : utils::valid_utf8(program.string()),
          .repository = utils::valid_utf8(root.string())};
}

void print_block(const std::string& text, Output& output) {
  for (const std::string_view line : utils::split_lines(text)) output.line("  " + Shown(line));
}

}  // namespace

ClientFiles::ClientFiles(const fs::path& root, const std::vector<std::string>& names) : root_(root) {
  for (const std::string& name : names) {
    const Client& client = client_named(name);
    const auto is_it = [&](const File& file) { return file.client == &client; };
    if (std::any_of(files_.begin(), files_.end(), is_it)) continue;  // named twice
    File file;
    file.client = &client;
    if (client.in_repository()) {
      const std::string before = bytes_of(root / client.file, client.file);
      file.text = with_server(client, before);
      file.changed = file.text != before;
    } else {  // the user's own file: shown to be pasted, never written
      file.text = configuration(client, on_this_machine(root));
    }
    files_.push_back(std::move(file));
  }
}

bool ClientFiles::is_entered() const {
  return std::none_of(files_.begin(), files_.end(), [](const File& file) { return file.changed; });
}

void ClientFiles::write() const {
  for (const File& file : files_)
    if (file.changed) utils::atomic_write(root_ / file.client->file, file.text);
}

void ClientFiles::print(const File& file, Output& output) const {
  const Shown name = output.styled(Style::bold, file.client->name);
  if (file.changed) {
    output.line(name + ": wrote " + file.client->file + "; commit it to share it");
  } else if (file.client->in_repository()) {
    output.line(name + ": " + file.client->file + " already has the server");
  } else {
    output.line(name + " does not read a file in the repository; add this to your " + file.client->file +
                ":");
    print_block(file.text, output);
  }
}

void ClientFiles::print(Output& output) const {
  if (files_.empty()) return;
  output.line();
  for (const File& file : files_) print(file, output);
  if (std::any_of(files_.begin(), files_.end(), [](const File& file) { return file.changed; }))
    output.line("A client may ask once whether you trust a server that comes with a repository.");
  const auto in_repository = [](const File& file) { return file.client->in_repository(); };
  if (std::any_of(files_.begin(), files_.end(), in_repository) && !is_on_path()) {
    output.line(output.styled(Style::warn, "ossilar is not on your PATH") +
                ", where clients look for it; this program is " + on_this_machine(root_).program);
  }
}

Map ClientFiles::documents() const {
  Map all = Map::array();
  for (const File& file : files_) {
    Map one{{"client", file.client->name}, {"file", file.client->file}, {"written", file.changed}};
    if (!file.client->in_repository()) one["to_add"] = file.text;
    all.push_back(std::move(one));
  }
  return all;
}

void print_client_advice(const fs::path& root, Output& output) {
  output.line();
  output.line("Agents use the wiki through a client that runs ossilar. To set one up for this repository:");
  output.line("  ossilar init --client NAME   NAME is one of " + utils::join(client_names(), ", "));
  output.line("Any other client needs this entry in its own format:");
  output.line("  " + utils::printable_json(utils::json_text(server_on_this_machine(root))));
}

// Splits PATH as lines; an empty entry is the current folder, as in a shell.
bool is_on_path() {
  const char* path = std::getenv("PATH");
  std::string folders = path == nullptr ? "" : path;
  std::replace(folders.begin(), folders.end(), ':', '\n');
  const auto lines = utils::split_lines(folders);
  return std::any_of(lines.begin(), lines.end(), [](std::string_view folder) {
    return access((fs::path(folder) / "ossilar").c_str(), X_OK) == 0;
  });
}

Map server_on_this_machine(const fs::path& root) { return common_configuration(on_this_machine(root)); }

}  // namespace ossilar::cli
