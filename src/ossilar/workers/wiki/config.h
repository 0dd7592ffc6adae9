// What `ossilar.toml` says.
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

struct WikiConfig {
  std::string dir = "wiki";
  bool diagrams = true;
  std::int64_t min_citations_per_page = 2;
  std::chrono::milliseconds lock_timeout{std::chrono::seconds(30)};
  // The embedding provider: "local", or "http" with the three below.
  std::string embedding_provider = "local";
  std::string embedding_url;
  std::string embedding_model;
  std::string embedding_api_key_env;
  std::string steering;  // for every page
  std::vector<PageEntry> pages;
};

// Reads the configuration in `text`; `name` is the file's name for messages. Throws utils::ConfigError with
// file, line and key for TOML that does not parse, an unknown key or table, a wrong type or value, a page id
// that is no slug or stands twice, a steering or title that is no UTF-8.
WikiConfig parse_config(std::string_view text, const std::string& name);

// The configuration of the file `path`; the defaults when there is none.
WikiConfig load_config(const std::filesystem::path& path);

inline constexpr std::size_t kLongestPageId =
    200;  // bytes; with ".md" it fits in a path on every file system

// Whether `id` is a page id: parts of lower-case letters, digits, '-', '_' and '.', joined by '/', none of
// them empty, "." or "..", at most 200 bytes in all.
bool is_page_id(std::string_view id);

}  // namespace ossilar::workers::wiki
