// libgit2 takes paths, not descriptors. So each file is checked by its path just before libgit2 opens it, and
// the gap between the two remains. Symbolic links are followed, because git follows them.
//
// Only settings, and files that name a directory, are read here; of all others only type and size are
// checked. Settings are searched line by line for section headers that include other files. A parser would
// have to agree with libgit2's on broken quotes. The search refuses too much rather than too little; what git
// writes has no such line unless it includes something.
#include "ossilar/source/git/git_files.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>

#include "ossilar/utils/error.h"
#include "ossilar/utils/files.h"

namespace ossilar::source {
namespace {

namespace fs = std::filesystem;

// A file that holds one reference, hash or path, each of at most 4,096 bytes. Sixteen times that leaves room
// for white space and is still read in no time.
constexpr std::uint64_t kLargestName = std::uint64_t{64} << 10U;
// The settings of a hundred thousand branches, some 160 bytes each.
constexpr std::uint64_t kLargestSettings = std::uint64_t{16} << 20U;
// A loose object of any size that git stores: a blob of some GiB, compressed. It is only a guard against a
// file that never ends.
constexpr std::uint64_t kLargestObject = std::uint64_t{8} << 30U;
// Ten million files or references of a hundred bytes each.
constexpr std::uint64_t kLargestList = std::uint64_t{1} << 30U;

constexpr std::string_view kBlank = " \t\r\v\f";

// The type of a file on which libgit2 might wait for ever, or read for ever; "" for what it can open. A
// directory is left to it: it reports that itself.
std::string_view obstacle(mode_t mode) {
  if (S_ISFIFO(mode)) return "a pipe";
  if (S_ISSOCK(mode)) return "a socket";
  return S_ISCHR(mode) || S_ISBLK(mode) ? "a device" : "";
}

void require_readable(const fs::path& file, const struct stat& info, std::uint64_t largest) {
  if (const auto kind = obstacle(info.st_mode); !kind.empty()) {
    throw utils::Error(file.string() + " is " + std::string(kind) +
                       ", but git needs a regular file there; put one in its place, or remove it");
  }
  if (S_ISREG(info.st_mode) && static_cast<std::uint64_t>(info.st_size) > largest) {
    throw utils::Error(file.string() + " is too large for a file of git (" + std::to_string(info.st_size) +
                       " bytes, and ossilar reads at most " + std::to_string(largest) +
                       "); restore git's own file, or remove it");
  }
}

// libgit2 decides whether a missing file is an error.
bool is_absent(int error) { return error == ENOENT || error == ENOTDIR; }

void look_at(const fs::path& file, std::uint64_t largest) {
  struct stat info {};
  if (stat(file.c_str(), &info) == 0) return require_readable(file, info, largest);
  if (!is_absent(errno)) throw utils::IoError("cannot stat " + file.string(), errno);
}

// The bytes of the file; none when it is missing or a directory.
std::optional<std::string> read(const fs::path& file, std::uint64_t largest) {
  look_at(file, largest);  // before the open, which may already do something to a device
  // What is swapped in after the look: O_NONBLOCK for a pipe, which must not block us, O_NOCTTY for a
  // terminal, which must not become our controlling terminal. The second check refuses both.
  const utils::UniqueFd opened(open(file.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (!opened && is_absent(errno)) return std::nullopt;
  struct stat info {};
  if (!opened || fstat(opened.get(), &info) != 0) throw utils::IoError("cannot read " + file.string(), errno);
  require_readable(file, info, largest);
  if (!S_ISREG(info.st_mode)) return std::nullopt;
  auto bytes = utils::read_at_most(opened.get(), largest, file.string());
  if (!bytes) throw utils::Error(file.string() + " grows while it is read; try again");
  return bytes;
}

// The path that the text of `file` consists of, seen from the file's directory. Messages name this path, so
// links and ".." are resolved; a path that cannot be resolved stays, and opening it says why.
fs::path path_in(const fs::path& file, std::string_view text) {
  text = text.substr(0, text.find_last_not_of(" \t\r\n\v\f") + 1);
  const fs::path path =
      file.parent_path() / text.substr(std::min(text.find_first_not_of(kBlank), text.size()));
  std::error_code error;
  const fs::path real = fs::canonical(path, error);
  return error ? path : real;
}

// Whether `text` starts with the section name `word`, whatever its case. A name goes on with letters, digits
// and '-': "[includes]" is another section.
bool starts_with_word(std::string_view text, std::string_view word) {
  const auto is_same = [](char a, char b) { return a == std::tolower(static_cast<unsigned char>(b)); };
  if (text.size() < word.size() || !std::equal(word.begin(), word.end(), text.begin(), is_same)) return false;
  const auto next = text.size() > word.size() ? static_cast<unsigned char>(text[word.size()]) : ' ';
  return std::isalnum(next) == 0 && next != '-';
}

// The header on the line that includes other files, or "". A line may have several headers before its
// setting. Where one ends depends on quotes, and readers differ on broken ones; so each "[" of a line that
// starts with one counts.
std::string_view including_header(std::string_view line) {
  const std::size_t begin = std::min(line.find_first_not_of(kBlank), line.size());
  if (line.substr(begin, 1) != "[") return "";
  for (std::size_t at = begin; at != line.npos; at = line.find('[', at + 1)) {
    const std::string_view name = line.substr(at + 1);
    if (starts_with_word(name, "include")) return "[include]";
    if (starts_with_word(name, "includeif")) return "[includeIf]";
  }
  return "";
}

// A value that goes on in the next line (after a backslash) is searched as a line of its own. It is refused
// if it looks like such a header, which no value that git writes does.
void refuse_includes(const fs::path& file, std::string_view text) {
  constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
  if (text.starts_with(kByteOrderMark)) text.remove_prefix(kByteOrderMark.size());
  std::size_t number = 1;
  for (std::size_t begin = 0; begin < text.size(); ++number) {
    const std::size_t end = std::min(text.find('\n', begin), text.size());
    if (const auto header = including_header(text.substr(begin, end - begin)); !header.empty()) {
      throw utils::Error(file.string() + " line " + std::to_string(number) + ": " + std::string(header) +
                         " names another file, which ossilar does not read; move its "
                         "settings into this one (`git config --file " +
                         file.string() + " NAME VALUE`) and remove the section");
    }
    begin = end + 1;
  }
}

void look_at_settings(const fs::path& file) {
  if (const auto text = read(file, kLargestSettings)) refuse_includes(file, *text);
}

// A linked working tree names here the directory that it shares with the others.
fs::path common_directory_of(const fs::path& directory) {
  const fs::path file = directory / "commondir";
  const auto text = read(file, kLargestName);
  return text ? path_in(file, *text) : directory;
}

}  // namespace

fs::path git_directory_of(const fs::path& root) {
  constexpr std::string_view kPrefix = "gitdir:";
  fs::path mark = root / ".git";
  const auto text = read(mark, kLargestName);
  if (!text) return mark;
  if (!text->starts_with(kPrefix))
    throw utils::Error(mark.string() + " cannot be read: it names no git directory");
  return path_in(mark, std::string_view(*text).substr(kPrefix.size()));
}

// A linked working tree has its own HEAD, index and config.worktree; the rest lies in the common directory,
// which therefore has to be known first.
void look_at_git_files(const fs::path& directory) {
  const fs::path common = common_directory_of(directory);
  look_at(directory / "HEAD", kLargestName);
  look_at_settings(common / "config");
  look_at_settings(directory / "config.worktree");
  look_at(directory / "index", kLargestList);
  // libgit2 1.5 reads only the first of these, later versions all three.
  for (const char* name : {"packed-refs", "shallow", "info/grafts"}) look_at(common / name, kLargestList);
}

void look_at_reference(const fs::path& file) { look_at(file, kLargestName); }

void look_at_object(const fs::path& file) { look_at(file, kLargestObject); }

// A pack has no largest size: git maps it and does not read it whole, and so does libgit2.
void look_at_packs(const fs::path& common) {
  std::error_code error;
  for (const char* folder : {"objects/pack", "objects/info"}) {
    for (const auto& entry : fs::directory_iterator(common / folder, error)) {
      const fs::file_type type = entry.symlink_status(error).type();
      if (type != fs::file_type::directory) look_at(entry.path(), std::numeric_limits<std::uint64_t>::max());
    }
  }
}

}  // namespace ossilar::source
