#include "ossilar/source/git_files.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>

#include "ossilar/utils/error.h"
#include "ossilar/utils/files.h"

namespace ossilar::source {
namespace {

namespace fs = std::filesystem;

// A file with one name or path, both of at most 4,096 bytes.
constexpr std::uint64_t kLargestName = std::uint64_t{64} << 10U;
// The sections of a hundred thousand branches.
constexpr std::uint64_t kLargestSettings = std::uint64_t{16} << 20U;
// Ten million files or references of a hundred bytes each.
constexpr std::uint64_t kLargestList = std::uint64_t{1} << 30U;

constexpr std::string_view kBlank = " \t\r\v\f";

// What keeps libgit2 from an answer, or "" for what it can open.
std::string_view obstacle(mode_t mode) {
  if (S_ISFIFO(mode)) return "a pipe";
  if (S_ISSOCK(mode)) return "a socket";
  return S_ISCHR(mode) || S_ISBLK(mode) ? "a device" : "";
}

void require_readable(const fs::path& file, const struct stat& info, std::uint64_t largest) {
  if (const auto kind = obstacle(info.st_mode); !kind.empty()) {
    throw utils::Error(file.string() + " is " + std::string(kind) +
                       " where git keeps a regular file; put that in its place, or remove it");
  }
  if (S_ISREG(info.st_mode) && static_cast<std::uint64_t>(info.st_size) > largest) {
    throw utils::Error(file.string() + " is too large to be what git keeps there (" +
                       std::to_string(info.st_size) + " bytes, where at most " + std::to_string(largest) +
                       " are read); put git's own file in its place, or remove it");
  }
}

bool is_absent(int error) { return error == ENOENT || error == ENOTDIR; }

void look_at(const fs::path& file, std::uint64_t largest) {
  struct stat info {};
  if (stat(file.c_str(), &info) == 0) return require_readable(file, info, largest);
  if (!is_absent(errno)) throw utils::IoError("cannot look at " + file.string(), errno);
}

// The bytes of the file, none where there is no file or a directory.
std::optional<std::string> read(const fs::path& file, std::uint64_t largest) {
  look_at(file, largest);  // to open a device may already do something
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

// The path that is all the text of a file, relative to the file's directory.
fs::path path_in(const fs::path& file, std::string_view text) {
  text = text.substr(0, text.find_last_not_of(" \t\r\n\v\f") + 1);
  const fs::path path =
      file.parent_path() / text.substr(std::min(text.find_first_not_of(kBlank), text.size()));
  std::error_code error;
  const fs::path real = fs::canonical(path, error);  // for messages
  return error ? path : real;
}

bool starts_with_word(std::string_view text, std::string_view word) {
  const auto is_same = [](char a, char b) { return a == std::tolower(static_cast<unsigned char>(b)); };
  if (text.size() < word.size() || !std::equal(word.begin(), word.end(), text.begin(), is_same)) return false;
  const auto next = text.size() > word.size() ? static_cast<unsigned char>(text[word.size()]) : ' ';
  return std::isalnum(next) == 0 && next != '-';
}

// The header on the line that includes other files, or "". Several headers may stand before a setting. Where
// one ends is a matter of quotes, and not all readers agree on broken ones: any "[" counts.
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

// A line that goes on with a text from the line before counts as one of its own, which no file of git's has.
void refuse_includes(const fs::path& file, std::string_view text) {
  constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
  if (text.starts_with(kByteOrderMark)) text.remove_prefix(kByteOrderMark.size());
  std::size_t number = 1;
  for (std::size_t begin = 0; begin < text.size(); ++number) {
    const std::size_t end = std::min(text.find('\n', begin), text.size());
    if (const auto header = including_header(text.substr(begin, end - begin)); !header.empty()) {
      throw utils::Error(file.string() + " line " + std::to_string(number) + ": " + std::string(header) +
                         " names another file, and ossilar reads none outside the repository; move its "
                         "settings into this one (`git config --file " +
                         file.string() + " NAME VALUE`) and remove the section");
    }
    begin = end + 1;
  }
}

void look_at_settings(const fs::path& file) {
  if (const auto text = read(file, kLargestSettings)) refuse_includes(file, *text);
}

// A linked working tree names the directory that it shares with the others.
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

void look_at_git_files(const fs::path& directory) {
  const fs::path common = common_directory_of(directory);
  look_at(directory / "HEAD", kLargestName);
  look_at_settings(common / "config");
  look_at_settings(directory / "config.worktree");
  look_at(directory / "index", kLargestList);
  // Later versions of libgit2 than 1.5 read the last two.
  for (const char* name : {"packed-refs", "shallow", "info/grafts"}) look_at(common / name, kLargestList);
}

void look_at_reference(const fs::path& file) { look_at(file, kLargestName); }

}  // namespace ossilar::source
