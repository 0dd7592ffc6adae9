// Each table is a list of keys with what takes the value of each; read_table() walks what is in the file and
// not what is expected, so no key goes unnoticed. The first fault ends the reading: a configuration that is
// wrong in one place is used in none.
//
// The file is a user's, but repositories come from anywhere, so its text is not trusted. Size, UTF-8 and the
// depth of keys are checked before the parser runs. A message shows no key of an embedding service that was
// put where its variable's name belongs, and no control characters.
#include "ossilar/workers/wiki/config.h"

#include <toml++/toml.h>
#include <algorithm>
#include <array>
#include <cmath>
#include <functional>
#include <set>
#include <utility>

#include "ossilar/utils/files.h"
#include "ossilar/utils/text.h"
#include "ossilar/workers/wiki/page_title.h"
#include "ossilar/workers/wiki/types.h"

namespace ossilar::workers::wiki {
namespace {

using utils::ConfigError;

// A configuration that a person writes has a few kilobytes; more is another file by mistake.
constexpr std::size_t kLargestConfig = std::size_t{1} << 20U;
// TOML nests a table for each part of a dotted key. The parser's limit on nested values does not count these,
// and tables are destroyed recursively, so a long key would overflow the stack. 16 is far above the two that
// are used.
constexpr int kMostKeyParts = 16;
constexpr std::size_t kLongestShown = 60;  // of a key or value in a message
// Seconds. An hour is more than any save waits for on purpose; more is milliseconds or a slip.
constexpr double kLongestLockTimeout = 3600;
// More would be an archive, which git is.
constexpr std::int64_t kMostVersions = 1000;
constexpr std::size_t kLongestDescription = 1000;  // bytes: a few sentences, shown in briefs and lists
// Of one page. Every glob is matched against every path, so the number bounds what a plan costs; a glob that
// names a folder replaces many.
constexpr std::size_t kMostGlobs = 100;
// Bytes; matching costs up to the product of the lengths of pattern and path.
constexpr std::size_t kLongestGlob = 500;

// A key or value in a message: quoted, cut, and safe for a terminal, as anybody may have written the file.
std::string shown(std::string_view text) {
  const std::string_view cut = utils::utf8_prefix(text, kLongestShown);
  return '"' + utils::printable(cut) + (cut.size() < text.size() ? "\u2026\"" : "\"");
}

// Where a value stands, for messages: the file, the line (from 1) and the key with its table.
struct At {
  std::string file;
  toml::source_index line = 0;
  std::string key;

  [[noreturn]] void refuse(const std::string& message) const {
    throw ConfigError(file + ":" + std::to_string(line) + ": " + key + ": " + message);
  }
};

std::string_view type_name(const toml::node& node) {
  switch (node.type()) {
    case toml::node_type::table:
      return "a table";
    case toml::node_type::array:
      return "a list";
    case toml::node_type::string:
      return "a string";
    case toml::node_type::integer:
      return "an integer";
    case toml::node_type::floating_point:
      return "a number with a fraction";
    case toml::node_type::boolean:
      return "true or false";
    default:
      return "a date or time";
  }
}

template <class T>
const T& value_of(const At& at, const toml::node& node, std::string_view expected) {
  if (const auto* value = node.as<T>()) return value->get();
  at.refuse("expected " + std::string(expected) + ", found " + std::string(type_name(node)));
}

const std::string& text_of(const At& at, const toml::node& node) {
  return value_of<std::string>(at, node, "a string");
}

std::vector<std::string> texts_of(const At& at, const toml::node& node) {
  const toml::array* list = node.as_array();
  if (list == nullptr) at.refuse("expected a list of strings, found " + std::string(type_name(node)));
  std::vector<std::string> out;
  for (const toml::node& element : *list) {
    // With the element's own line: a list may run over many.
    out.push_back(text_of({at.file, element.source().begin.line, at.key}, element));
  }
  return out;
}

// A key that a table may have, and what takes its value. `take` refuses by throwing.
struct Key {
  std::string_view name;
  std::function<void(const At&, const toml::node&)> take;
};

[[noreturn]] void refuse_unknown(const At& at, std::string_view name, const std::vector<Key>& keys) {
  std::vector<std::string> names;
  std::string_view nearest;
  std::size_t least = 4;  // at most three edits: names that are farther apart are no typing mistakes
  for (const Key& key : keys) {
    names.emplace_back(key.name);
    // A name too long to be shown is not compared. The distance must be below the key's length too: otherwise
    // "url" would be suggested for any three letters.
    const std::size_t distance = name.size() > kLongestShown ? least : utils::edit_distance(name, key.name);
    if (distance < std::min(least, key.name.size())) {
      least = distance;
      nearest = key.name;
    }
  }
  const std::string hint = nearest.empty() ? "" : "did you mean \"" + std::string(nearest) + "\"? ";
  at.refuse("unknown key; " + hint + "known keys: " + utils::join(names, ", "));
}

// Gives each value of the table to the key that takes it, and refuses every key that is not in `keys`: a
// mistyped key that was ignored would look like one that has no effect. `place` is how messages name the
// table: [wiki], for one.
void read_table(const std::string& file, std::string_view place, const toml::table& table,
                const std::vector<Key>& keys) {
  for (const auto& [name, node] : table) {
    const std::string_view text = name.str();
    const std::string bare = utils::printable(utils::utf8_prefix(text, kLongestShown));
    const At at{file, name.source().begin.line, place.empty() ? bare : std::string(place) + " " + bare};
    const auto key = std::find_if(keys.begin(), keys.end(), [&](const Key& k) { return k.name == text; });
    if (key == keys.end()) refuse_unknown(at, text, keys);
    key->take(at, node);
  }
}

const toml::table& table_of(const At& at, const toml::node& node) {
  const toml::table* table = node.as_table();
  if (table == nullptr) at.refuse("expected a table, found " + std::string(type_name(node)));
  return *table;
}

// Whether `text` is not fit for one line. printable() leaves tab and line feed, and U+2028 and U+2029, which
// some readers take for line ends.
bool has_control(std::string_view text) {
  return utils::printable(text) != text || text.find_first_of("\n\t") != std::string_view::npos ||
         text.find("\u2028") != std::string_view::npos || text.find("\u2029") != std::string_view::npos;
}

// The wiki's folder, without slashes at its end. Its files are written there, so a path that may lead out of
// the repository or into another program's files is refused by its text alone. `.git` is refused at any
// depth, in submodules too, and `.ossilar` where this program keeps its state. In lower case, as `.GIT` is
// the same folder on some file systems.
std::string wiki_folder(const At& at, std::string dir) {
  while (dir.size() > 1 && dir.back() == '/') dir.pop_back();
  const auto require = [&](bool holds, const char* rule) {
    if (!holds) at.refuse(shown(dir) + " cannot be the wiki's folder: it must be " + rule);
  };
  require(!dir.empty() && dir.front() != '/', "a path relative to the repository's root");
  require(!has_control(dir) && dir.find('\\') == std::string::npos,
          "without control characters and backslashes");
  for (std::size_t start = 0; start <= dir.size();) {
    const std::size_t stop = std::min(dir.find('/', start), dir.size());
    const std::string part = utils::lower_case(std::string_view(dir).substr(start, stop - start));
    require(!part.empty() && part != "." && part != "..", "a plain path without \".\" and \"..\"");
    require(part != ".git" && (start > 0 || part != ".ossilar"), "outside of .git and .ossilar");
    start = stop + 1;
  }
  return dir;
}

std::chrono::milliseconds lock_timeout(const At& at, const toml::node& node) {
  const std::optional<double> seconds = node.is_number() ? node.value<double>() : std::nullopt;
  if (!seconds) at.refuse("expected a number of seconds, found " + std::string(type_name(node)));
  if (!(*seconds > 0 && *seconds <= kLongestLockTimeout))  // written so that NaN is refused
    at.refuse("expected more than 0 and at most 3600 seconds");
  // At least one: a tiny value rounds to 0, which is refused above.
  return std::chrono::milliseconds(std::max<std::int64_t>(1, std::llround(*seconds * 1000)));
}

std::int64_t citations(const At& at, const toml::node& node) {
  const std::int64_t count = value_of<std::int64_t>(at, node, "an integer");
  if (count < 0) at.refuse("expected 0 or more");
  return count;
}

// One of a few words; the error lists them.
template <std::size_t n>
std::string word_of(const At& at, const toml::node& node, const std::array<std::string, n>& words) {
  const std::string& word = text_of(at, node);
  if (std::find(words.begin(), words.end(), word) != words.end()) return word;
  at.refuse("expected " + utils::join({words.begin(), words.end()}, ", ") + ", found " + shown(word));
}

std::string web_address(const At& at, const toml::node& node) {
  const std::string& url = text_of(at, node);
  if (!url.starts_with("http://") && !url.starts_with("https://")) {
    at.refuse("expected an address that begins with http:// or https://, found " + shown(url));
  }
  return url;
}

// Never shows the value: a key that is put here by mistake must not reach a log.
std::string variable_name(const At& at, const toml::node& node) {
  const std::string& name = text_of(at, node);
  const auto fits = [](char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_';
  };
  if (name.empty() || (name[0] >= '0' && name[0] <= '9') || !std::all_of(name.begin(), name.end(), fits)) {
    at.refuse("expected the name of an environment variable that holds the key, not the key itself");
  }
  return name;
}

void require_page_id(const At& at, const std::string& id) {
  if (is_page_id(id)) return;
  at.refuse(shown(id) +
            " is not a page id; use lower-case letters, digits, '-', '_' and '.', with '/' between parts");
}

// At least as strict as a save is with the title that it asks for (title_fault() in page_title.cc).
std::string title(const At& at, const toml::node& node) {
  std::string text(utils::strip(text_of(at, node)));
  if (const std::string fault = title_fault(text); !fault.empty()) at.refuse("it " + fault);
  return text;
}

// On one line, each run of white space as a blank: it may be written as a block, but is shown in lists.
std::string description(const At& at, const toml::node& node) {
  std::string line;
  for (const std::string_view word : utils::split_words(text_of(at, node))) {
    line += (line.empty() ? "" : " ") + std::string(word);
  }
  if (line.size() > kLongestDescription || has_control(line)) {
    at.refuse("expected at most 1000 bytes without control characters; write more in steering");
  }
  return line;
}

std::vector<std::string> globs(const At& at, const toml::node& node) {
  std::vector<std::string> patterns = texts_of(at, node);
  if (patterns.size() > kMostGlobs) at.refuse("expected at most 100 patterns; name folders instead of files");
  for (const std::string& pattern : patterns) {
    if (pattern.empty() || pattern.size() > kLongestGlob) at.refuse("expected patterns of 1 to 500 bytes");
  }
  return patterns;
}

std::vector<std::string> page_ids(const At& at, const toml::node& node) {
  std::vector<std::string> ids;
  for (std::string& id : texts_of(at, node)) {
    require_page_id(at, id);
    if (std::find(ids.begin(), ids.end(), id) == ids.end()) ids.push_back(std::move(id));
  }
  return ids;
}

// "" takes a page to the top, so unlike an id it may be empty.
std::string parent(const At& at, const toml::node& node) {
  const std::string& id = text_of(at, node);
  if (!id.empty()) require_page_id(at, id);
  return id;
}

PageEntry page_entry(const std::string& file, const toml::table& table) {
  static const std::array<std::string, 4> kTypes{"overview", "architecture", "module", "topic"};
  static const std::array<std::string, 3> kImportances{"high", "medium", "low"};
  PageEntry page;
  read_table(
      file, "[[page]]", table,
      {{"id",
        [&](const At& at, const toml::node& node) { require_page_id(at, page.id = text_of(at, node)); }},
       {"title", [&](const At& at, const toml::node& node) { page.title = title(at, node); }},
       {"description",
        [&](const At& at, const toml::node& node) { page.description = description(at, node); }},
       {"type", [&](const At& at, const toml::node& node) { page.type = word_of(at, node, kTypes); }},
       {"importance",
        [&](const At& at, const toml::node& node) { page.importance = word_of(at, node, kImportances); }},
       {"parent", [&](const At& at, const toml::node& node) { page.parent = parent(at, node); }},
       {"sources", [&](const At& at, const toml::node& node) { page.sources = globs(at, node); }},
       {"related", [&](const At& at, const toml::node& node) { page.related = page_ids(at, node); }},
       {"steering", [&](const At& at, const toml::node& node) { page.steering = text_of(at, node); }}});
  return page;
}

void read_pages(const At& at, const toml::node& node, WikiConfig& config) {
  const toml::array* list = node.as_array();
  if (list == nullptr) at.refuse("expected [[page]] tables, found " + std::string(type_name(node)));
  std::set<std::string> ids;
  for (const toml::node& element : *list) {
    const At entry{at.file, element.source().begin.line, "[[page]] id"};
    config.pages.push_back(page_entry(at.file, table_of({at.file, entry.line, "[[page]]"}, element)));
    // After the whole table is read, as its keys come in any order.
    const std::string& id = config.pages.back().id;
    if (id.empty()) entry.refuse("missing; every [[page]] needs the id of the page that it adds or changes");
    if (!ids.insert(id).second) entry.refuse(shown(id) + " is there twice; put its keys into one [[page]]");
  }
}

void read_wiki(const At& at, const toml::node& node, WikiConfig& config) {
  read_table(
      at.file, "[wiki]", table_of(at, node),
      {{"dir", [&](const At& k, const toml::node& v) { config.dir = wiki_folder(k, text_of(k, v)); }},
       {"follow",
        [&](const At& k, const toml::node& v) { config.follow = value_of<bool>(k, v, "true or false"); }},
       {"diagrams",
        [&](const At& k, const toml::node& v) { config.diagrams = value_of<bool>(k, v, "true or false"); }},
       {"min_citations_per_page",
        [&](const At& k, const toml::node& v) { config.min_citations_per_page = citations(k, v); }},
       {"lock_timeout_s",
        [&](const At& k, const toml::node& v) { config.lock_timeout = lock_timeout(k, v); }}});
}

void read_embedding(const At& at, const toml::node& node, WikiConfig& config) {
  static const std::array<std::string, 2> kProviders{"local", "http"};
  read_table(
      at.file, "[embedding]", table_of(at, node),
      {{"provider",
        [&](const At& k, const toml::node& v) { config.embedding_provider = word_of(k, v, kProviders); }},
       {"url", [&](const At& k, const toml::node& v) { config.embedding_url = web_address(k, v); }},
       {"model", [&](const At& k, const toml::node& v) { config.embedding_model = text_of(k, v); }},
       {"api_key_env",
        [&](const At& k, const toml::node& v) { config.embedding_api_key_env = variable_name(k, v); }}});
  if (config.embedding_provider != "http") return;  // url and model may stay in the file, unused
  const At missing_url{at.file, at.line, "[embedding] url"};
  const At missing_model{at.file, at.line, "[embedding] model"};
  if (config.embedding_url.empty()) missing_url.refuse("missing; provider \"http\" needs one");
  if (config.embedding_model.empty()) missing_model.refuse("missing; provider \"http\" needs one");
}

// The file is committed, so it must not hold a password. In an address it stands between the user and "@", or
// as a parameter.
std::string store_address(const At& at, const std::string& url) {
  const std::string scheme = "postgresql://";
  if (!url.starts_with(scheme)) at.refuse("expected an address that begins with " + scheme);
  const std::string rest = url.substr(scheme.size());
  const std::size_t user_end = rest.substr(0, rest.find('/')).rfind('@');
  const bool has_password = user_end != rest.npos && rest.substr(0, user_end).find(':') != rest.npos;
  if (has_password || rest.find("password=") != rest.npos) {
    at.refuse(
        "has a password, and this file is committed; put the password into ~/.pgpass or PGPASSWORD instead");
  }
  return url;
}

void read_store(const At& at, const toml::node& node, WikiConfig& config) {
  read_table(at.file, "[store]", table_of(at, node), {{"url", [&](const At& k, const toml::node& v) {
                                                         config.store_url = store_address(k, text_of(k, v));
                                                       }}});
}

// At least one: the newest is the page file itself.
std::size_t history_versions(const At& at, const toml::node& node) {
  const std::int64_t count = value_of<std::int64_t>(at, node, "an integer");
  if (count < 1 || count > kMostVersions) at.refuse("expected 1 to 1000");
  return static_cast<std::size_t>(count);
}

void read_history(const At& at, const toml::node& node, WikiConfig& config) {
  read_table(at.file, "[history]", table_of(at, node), {{"versions", [&](const At& k, const toml::node& v) {
                                                           config.history_versions = history_versions(k, v);
                                                         }}});
}

// `steering = "..."` or a table with `text`: people write a long text in a table of its own.
void read_steering(const At& at, const toml::node& node, WikiConfig& config) {
  if (node.is_string()) {
    config.steering = text_of(at, node);
    return;
  }
  if (!node.is_table())
    at.refuse("expected a string, or a table with the key text, found " + std::string(type_name(node)));
  read_table(at.file, "[steering]", *node.as_table(),
             {{"text", [&](const At& k, const toml::node& v) { config.steering = text_of(k, v); }}});
}

// Finds keys with too many parts, before the parser builds a table for each part. It scans for dots outside
// of strings and comments, and counts them since the last character that ends a key or a value; numbers have
// dots too, but never that many.
class KeyDepth {
 public:
  explicit KeyDepth(std::string_view text) : text_(text) {}

  // The line of the first such key, or 0. Text that is no TOML is scanned alike; the parser refuses it later.
  std::size_t first_deep_line() {
    for (int dots = 0; at_ < text_.size();) {
      const char c = text_[at_];
      if (c == '"' || c == '\'') {
        skip_string(c);
        continue;
      }
      if (c == '#') at_ = std::min(text_.find('\n', at_), text_.size() - 1);
      if (std::string_view("=,[]{}\n#").find(text_[at_]) != std::string_view::npos) dots = 0;
      if (c == '.' && ++dots >= kMostKeyParts) return line();
      ++at_;
    }
    return 0;
  }

 private:
  std::size_t line() const {
    return 1 + static_cast<std::size_t>(
                   std::count(text_.begin(), text_.begin() + static_cast<std::ptrdiff_t>(at_), '\n'));
  }

  void skip_string(char quote) {
    const bool block = text_.substr(at_, 3) == std::string(3, quote);
    at_ += block ? 3 : 1;
    for (; at_ < text_.size(); ++at_) {
      // A backslash escapes in basic strings alone; a line end ends a string that is not closed.
      if (quote == '"' && text_[at_] == '\\') {
        ++at_;
      } else if (block ? text_.substr(at_, 3) == std::string(3, quote) : text_[at_] == quote) {
        at_ += block ? 3 : 1;
        // A block string may end in one or two quotes of its own, right before its three.
        for (int own = 0; block && own < 2 && at_ < text_.size() && text_[at_] == quote; ++own) ++at_;
        return;
      } else if (!block && text_[at_] == '\n') {
        return;
      }
    }
  }

  std::string_view text_;
  std::size_t at_ = 0;
};

constexpr std::string_view kTooLarge = " is larger than 1 MiB, the limit for a configuration file";

// What must hold before the parser sees the text.
void require_readable(std::string_view text, const std::string& name) {
  if (text.size() > kLargestConfig) throw ConfigError(name + std::string(kTooLarge));
  try {
    utils::require_utf8(text, name);
  } catch (const utils::Error& error) {
    throw ConfigError(error.what());
  }
  if (const std::size_t line = KeyDepth(text).first_deep_line(); line > 0) {
    throw ConfigError(name + ":" + std::to_string(line) +
                      ": a key has more than 16 parts; known keys have at most 2");
  }
}

toml::table parse(std::string_view text, const std::string& name) {
  try {
    return toml::parse(text, std::string_view(name));
  } catch (const toml::parse_error& error) {
    throw ConfigError(name + ":" + std::to_string(error.source().begin.line) +
                      ": not TOML: " + utils::printable(error.description()));
  }
}

// A symbolic link out of the repository, or text that is not UTF-8, is for the user to correct, so it is a
// ConfigError. IoError, which derives from Error as well, passes: it is a failure to read.
std::string config_text(const std::filesystem::path& path) {
  try {
    return utils::read_text_file_within(path.parent_path(), path);
  } catch (const utils::IoError&) {
    throw;
  } catch (const utils::Error& error) {
    throw ConfigError(error.what());
  }
}

}  // namespace

WikiConfig parse_config(std::string_view text, const std::string& name) {
  require_readable(text, name);
  // With line feeds alone, so that a steering and its hash are the same in a checkout with CR LF.
  const toml::table table = parse(utils::normalise_line_ends(text), name);
  WikiConfig config;
  read_table(name, "", table,
             {{"wiki", [&](const At& at, const toml::node& node) { read_wiki(at, node, config); }},
              {"embedding", [&](const At& at, const toml::node& node) { read_embedding(at, node, config); }},
              {"history", [&](const At& at, const toml::node& node) { read_history(at, node, config); }},
              {"store", [&](const At& at, const toml::node& node) { read_store(at, node, config); }},
              {"steering", [&](const At& at, const toml::node& node) { read_steering(at, node, config); }},
              {"page", [&](const At& at, const toml::node& node) { read_pages(at, node, config); }}});
  return config;
}

WikiConfig load_config(const std::filesystem::path& path) {
  const std::string name = path.filename().string();
  if (!utils::is_regular_file(path)) {
    // A directory or a pipe in its place is a mistake to name, not a missing file.
    if (std::filesystem::exists(path)) throw ConfigError(name + " is not a regular file");
    return {};
  }
  // Before it is read: a huge file must not be taken into memory to be refused.
  if (std::filesystem::file_size(path) > kLargestConfig) throw ConfigError(name + std::string(kTooLarge));
  return parse_config(config_text(path), name);
}

bool is_page_id(std::string_view id) {
  const auto fits = [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '_' || c == '.' || c == '/';
  };
  if (id.size() > kLongestPageId || !std::all_of(id.begin(), id.end(), fits)) return false;
  for (std::size_t start = 0; start <= id.size();) {
    const std::size_t stop = std::min(id.find('/', start), id.size());
    const std::string_view part = id.substr(start, stop - start);
    if (part.empty() || part == "." || part == "..") return false;
    start = stop + 1;
  }
  return true;
}

}  // namespace ossilar::workers::wiki
