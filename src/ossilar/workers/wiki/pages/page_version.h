// Versions of a page as agents name them, and saves that are made only onto one of them.
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

// The version that `text`, a page file's whole text, is: the first 16 hexadecimal digits of its SHA-256. The
// title stands in the text, so a rename is a version too.
std::string version_of(std::string_view text);

// A page file as it stands, which a hand may have changed since it was saved.
struct StandingPage {
  std::optional<std::string> bytes;  // none: there is no file
  std::string text;  // the bytes as text, line ends normalised; the bytes where they are no text

  std::string version() const { return bytes ? version_of(text) : std::string(kNoVersion); }
};

// Reads `file`, which lies below `pages`.
StandingPage read_standing_page(const std::filesystem::path& pages, const std::filesystem::path& file);

// The texts that were handed out last, so that who saves onto an old one can be shown what changed since.
//
// Thread-safety: every member may be called from any thread.
class ReadTexts {
 public:
  void put(const std::string& text);
  std::optional<std::string> find(const std::string& version) const;

 private:
  struct Entry {
    std::string version;
    std::string text;
  };
  static constexpr std::size_t kMostBytes = std::size_t{4} * 1024 * 1024;
  mutable std::mutex mutex_;
  std::list<Entry> entries_;  // the newest first; guarded by mutex_, as is the size
  std::size_t bytes_ = 0;
};

// Refuses a save onto the version `wanted` of a page that is another now. None when `page` is that version.
// Otherwise an answer with `error`, `page_id`, `version` (the page's now) and `diff`: from the version asked
// for to the page's now where `texts` has it, else from the page to `content`, which the save brings.
std::optional<Answer> refuse_version(const std::string& page_id, const std::string& wanted,
                                     const StandingPage& page, const ReadTexts& texts,
                                     const std::string& content);

}  // namespace ossilar::workers::wiki
