// Versions of a page as agents name them, and the refusal of a save that was meant for another version
// (`if_version`).
//
// host/orchestrator.cc reads the standing page for each draft and commit, and refuses; asking/wiki_reader.cc
// puts each page that it hands out into ReadTexts, of which each Wiki has one. Nothing here is written to
// disk.
#pragma once

#include <cstddef>
#include <filesystem>
#include <list>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "ossilar/workers/wiki/types.h"

namespace ossilar::workers::wiki {

// The version of a page that has no file yet.
inline constexpr std::string_view kNoVersion = "new";

// The version of a page whose file has the text `text`: the first 16 hexadecimal digits of its SHA-256. The
// title is part of the text, so a rename makes a new version.
std::string version_of(std::string_view text);

// A page file as it is now. It may have been edited by hand since it was saved.
struct StandingPage {
  std::optional<std::string> bytes;  // none if there is no file
  std::string text;  // without byte order mark, line ends normalised; the raw bytes if they are not UTF-8

  std::string version() const { return bytes ? version_of(text) : std::string(kNoVersion); }
};

// Reads `file`, which lies below `pages`. Text that is not UTF-8 is no error: a save may replace it. Throws
// utils::Error when the file cannot be read or is a symbolic link that leads out of `pages`.
StandingPage read_standing_page(const std::filesystem::path& pages, const std::filesystem::path& file);

// A cache of the page texts that were handed out last, so that a save onto an old version can be answered
// with what changed since. A text that was dropped costs only that: the refusal then shows another diff.
//
// Thread-safety: every member may be called from any thread.
class ReadTexts {
 public:
  // Keeps a page file's text under its version_of(), and drops those that were put least recently.
  void put(const std::string& text);
  std::optional<std::string> find(const std::string& version) const;

 private:
  struct Entry {
    std::string version;
    std::string text;
  };
  // Hundreds of usual pages, or about four of the largest that a save accepts (1 MiB).
  static constexpr std::size_t kMostBytes = std::size_t{4} * 1024 * 1024;
  mutable std::mutex mutex_;
  std::list<Entry> entries_;  // the newest first; guarded by mutex_, as is the next
  std::size_t bytes_ = 0;     // of all texts
};

// The refusal of a save onto the version `wanted` if `page` has another version by now; none if it has that
// one. The answer has `error`, `page_id` and `version` (the page's now). If the page changed it also has
// `diff`, a unified diff: from `wanted` to the page now if `texts` has that text, else from the page now to
// `content`, the text that the save brings. There is none if the page has no file, or has one and `wanted` is
// kNoVersion.
std::optional<Answer> refuse_version(const std::string& page_id, const std::string& wanted,
                                     const StandingPage& page, const ReadTexts& texts,
                                     const std::string& content);

}  // namespace ossilar::workers::wiki
