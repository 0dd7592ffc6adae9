// What `ossilar.toml` says, and what a page id is.
//
// load_config() is called when a wiki is set up or opened (host/open_wiki.cc) and by a check
// (check/wiki_check.cc). From then on it is data: an open wiki does not read the file again; a session opens
// the wiki anew when it changes.
//
// Threads: functions without state, to be called from any thread. Failures: utils::ConfigError for whatever
// the user can correct, utils::IoError for a file that cannot be read. Nothing is written.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "ossilar/utils/error.h"

namespace ossilar::workers::wiki {

// A `[[page]]` entry: adds a page to the plan, or amends the derived one of the same id. What is absent stays
// as derived.
struct PageEntry {
  std::string id;
  std::optional<std::string> title;
  std::optional<std::string> description;
  std::optional<std::string> type;
  std::optional<std::string> importance;
  std::optional<std::string> parent;
  std::optional<std::vector<std::string>> sources;  // globs
  std::optional<std::vector<std::string>> related;  // page ids
  std::string steering;
};

// The defaults are what an empty file means.
struct WikiConfig {
  std::string dir = "wiki";  // relative to the repository's root, '/' between parts
  // Whether a session follows moved citations of a page by itself when it reads or saves the page.
  bool follow = false;
  bool diagrams = true;
  // Fewer valid citations refuse a save. Two: one alone would let a page rest on a single place. 0: none.
  std::int64_t min_citations_per_page = 2;
  // How long a save waits for the write lock. Long enough for the saves of several others one after another,
  // short enough that an agent hears of a lock that does not come free.
  std::chrono::milliseconds lock_timeout{std::chrono::seconds(30)};
  // Where several machines share the wiki: "postgresql://...", without a password; "" for
  // `.ossilar/index.db`.
  std::string store_url;
  // "local", or "http" with the three below: url and model are needed then; the last is the name of the
  // environment variable that holds the key, "" for a service without one.
  std::string embedding_provider = "local";
  std::string embedding_url;
  std::string embedding_model;
  std::string embedding_api_key_env;
  // How many versions of each page are kept (host/history.h). A page file has some 10 KB, so twenty cost a
  // wiki of a thousand pages some 200 MB once each was saved that often.
  std::size_t history_versions = 20;
  std::string steering;  // for every page
  std::vector<PageEntry> pages;
};

// Reads the configuration in `text`; `name` is the file's name for messages. Throws utils::ConfigError for a
// text that is larger than 1 MiB, is not UTF-8 or is not TOML, and with file, line and key for an unknown
// key, a wrong type or value, and a page id that is none or stands twice.
WikiConfig parse_config(std::string_view text, const std::string& name);

// The configuration in the file `path` (absolute); the defaults when there is none. Throws utils::ConfigError
// as parse_config() does, and for a path that is no regular file or a link out of its directory.
WikiConfig load_config(const std::filesystem::path& path);

inline constexpr std::size_t kLongestPageId =
    200;  // bytes; one part of that length and ".md" is below the 255 bytes that file systems allow a name

// Whether `id` is a page id: parts of lower-case letters, digits, '-', '_' and '.', joined by '/', none of
// them empty, "." or "..", at most kLongestPageId bytes in all. No capitals: on a file system that ignores
// case, two ids must not name one file.
bool is_page_id(std::string_view id);

}  // namespace ossilar::workers::wiki
