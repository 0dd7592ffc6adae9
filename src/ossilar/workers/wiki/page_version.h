// Versions of a page as agents name them, and saves that are made only onto one of them.
#pragma once

#include <cstddef>
#include <list>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "ossilar/workers/wiki/agent_save.h"
#include "ossilar/workers/wiki/types.h"

namespace ossilar::workers::wiki {

// The version of a page that has no file yet.
inline constexpr std::string_view kNoVersion = "new";

// The version that `text`, a page file's whole text, is: the first 16 hexadecimal digits of its SHA-256. The
// title stands in the text, so a rename is a version too.
std::string version_of(std::string_view text);

// A page as it stands: its row's version, and its file's text, which a hand may have changed since.
struct StandingPage {
  Basis basis;
  std::optional<std::string> text;

  std::string version() const { return text ? version_of(*text) : std::string(kNoVersion); }
};

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

// One save onto a given version, on the thread that makes it, from its making to its end. The host asks for
// it while it drafts, because what a save asks for travels through the save's own stages as four arguments.
class ConditionalSave {
 public:
  // `content` is what the save brings.
  ConditionalSave(std::string wanted, const std::string& content);
  ~ConditionalSave();
  ConditionalSave(const ConditionalSave&) = delete;
  ConditionalSave& operator=(const ConditionalSave&) = delete;

  // That of the calling thread, or null.
  static ConditionalSave* current();

  // None when `page` is the version asked for. Otherwise an answer with `error`, `page_id`, `version` (the
  // page's now) and `diff`: from the version asked for to the page's now where `texts` has it, else from the
  // page to what the save brings.
  std::optional<Answer> refusal(const std::string& page_id, const StandingPage& page,
                                const ReadTexts& texts) const;

  const std::string& wanted() const { return wanted_; }

  // The version that the save gives the page, as drafted last.
  void set_drafted(std::string version) { drafted_ = std::move(version); }
  const std::string& drafted() const { return drafted_; }

 private:
  const std::string wanted_;
  const std::string& content_;
  std::string drafted_;
};

// The version of the page file that a section save of this thread is spliced into, from its making to its
// end: a row does not tell that a hand changed the file after the draft read it.
class SplicedInto {
 public:
  SplicedInto();
  ~SplicedInto();
  SplicedInto(const SplicedInto&) = delete;
  SplicedInto& operator=(const SplicedInto&) = delete;

  // That of the calling thread, or null.
  static SplicedInto* current();

  std::optional<std::string> version;  // none until a section is spliced
};

}  // namespace ossilar::workers::wiki
