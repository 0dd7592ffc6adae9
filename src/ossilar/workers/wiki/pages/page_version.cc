// A version is a hash of the file and not a number in the row, so that an edit by hand or by version control
// is a new version too, and clones agree on it without a database. It is not the whole hash, as agents have
// to repeat it in their calls.
//
// This check alone does not keep two saves apart. The commit compares the page file once more under the lock
// with the one that was checked here (host/orchestrator.cc).
#include "ossilar/workers/wiki/pages/page_version.h"

#include <algorithm>

#include "ossilar/source/git/text_diff.h"
#include "ossilar/utils/files.h"
#include "ossilar/utils/hash.h"
#include "ossilar/utils/text.h"

namespace ossilar::workers::wiki {
namespace {

constexpr std::size_t kVersionDigits = 16;  // 64 bits: no two versions of a page are alike by chance

// A diff must not fill an agent's context. The agent can read the page for what is cut off.
constexpr std::size_t kLongestDiff = std::size_t{16} * 1024;

std::string shortened(std::string diff) {
  if (diff.size() <= kLongestDiff) return diff;
  diff.resize(utils::utf8_prefix(diff, kLongestDiff).size());
  diff.resize(diff.find_last_of('\n') + 1);  // whole lines only; nothing if the first is too long
  return diff + "... the diff is cut here; read the page\n";
}

Answer mismatch(const std::string& page_id, const std::string& error, const std::string& version) {
  return {{"error", "page '" + page_id + "' " + error}, {"page_id", page_id}, {"version", version}};
}

}  // namespace

std::string version_of(std::string_view text) { return utils::sha256_hex(text).substr(0, kVersionDigits); }

void ReadTexts::put(const std::string& text) {
  std::string version = version_of(text);
  const std::lock_guard lock(mutex_);
  const auto known = std::find_if(entries_.begin(), entries_.end(),
                                  [&](const Entry& entry) { return entry.version == version; });
  if (known != entries_.end()) {
    entries_.splice(entries_.begin(), entries_, known);
    return;
  }
  bytes_ += text.size();
  entries_.push_front({std::move(version), text});
  // The text just put stays, however large: it is the one most likely to be asked for.
  while (bytes_ > kMostBytes && entries_.size() > 1) {
    bytes_ -= entries_.back().text.size();
    entries_.pop_back();
  }
}

std::optional<std::string> ReadTexts::find(const std::string& version) const {
  const std::lock_guard lock(mutex_);
  for (const Entry& entry : entries_) {
    if (entry.version == version) return entry.text;
  }
  return std::nullopt;
}

StandingPage read_standing_page(const std::filesystem::path& pages, const std::filesystem::path& file) {
  StandingPage page;
  if (!utils::is_regular_file(file)) return page;
  page.bytes = utils::read_file_within(pages, file);
  const bool is_text = !utils::first_invalid_utf8(*page.bytes);
  page.text = is_text ? utils::text_of(*page.bytes, file.string()) : *page.bytes;
  return page;
}

std::optional<Answer> refuse_version(const std::string& page_id, const std::string& wanted,
                                     const StandingPage& page, const ReadTexts& texts,
                                     const std::string& content) {
  const std::string version = page.version();
  if (version == wanted) return std::nullopt;
  if (!page.bytes) {
    return mismatch(page_id, "is not stored; save it with if_version \"new\", or without if_version",
                    version);
  }
  if (wanted == kNoVersion) {
    return mismatch(page_id, "already exists; read it, and save with if_version \"" + version + "\"",
                    version);
  }
  const std::string text = utils::valid_utf8(page.text);  // a hand may have written what is none
  const source::NamedText now{"the page now, version " + version, text};
  const auto read = texts.find(wanted);
  // `wanted` is the client's and may hold anything, so the message escapes it. The heading of the diff need
  // not: it names `wanted` only when that is the version of a text put here.
  Answer answer = mismatch(
      page_id,
      "changed since version " + utils::printable(wanted) + " was read; `diff` shows " +
          (read ? "what changed" : "how your text differs from the page now, as the old text is not kept") +
          ". Merge that into your text and save with if_version \"" + version + "\"",
      version);
  answer["diff"] = shortened(read ? source::unified_diff({"version " + wanted, *read}, now)
                                  : source::unified_diff(now, {"your text", content}));
  return answer;
}

}  // namespace ossilar::workers::wiki
