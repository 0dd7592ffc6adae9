// The diff is between the cited text and what stands in its place, with the file's own line numbers in the
// labels above it. A long one is cut: what the whole change was, the author reads in the source.
#include "ossilar/workers/wiki/asking/what_changed.h"

#include <map>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "ossilar/source/ctags.h"
#include "ossilar/source/git/text_diff.h"
#include "ossilar/utils/error.h"
#include "ossilar/utils/logging.h"
#include "ossilar/utils/markdown.h"
#include "ossilar/utils/text.h"
#include "ossilar/workers/wiki/citing/page_state.h"
#include "ossilar/workers/wiki/citing/symbol_changes.h"
#include "ossilar/workers/wiki/finalize.h"
#include "ossilar/workers/wiki/pages/page_version.h"

namespace ossilar::workers::wiki {
namespace {

// Of one citation's diff, so that a page with a rewritten file still shows several.
constexpr std::size_t kLongestDiff = std::size_t{2} * 1024;
// Symbols of one kind of change that a file's line names; the others are counted.
constexpr std::size_t kMostSymbols = 12;

const utils::Logger change_logger("ossilar.workers.wiki.what_changed");

std::string diff_of(const std::string& before, const std::string& after) {
  const std::string diff = source::unified_diff({"cited", before}, {"now", after});
  const std::string_view shown = utils::utf8_prefix(diff, kLongestDiff);
  const std::string fence = utils::fence_for(shown);
  return fence + "diff\n" + std::string(shown) + (shown.size() < diff.size() ? "\n...\n" : "") + fence + "\n";
}

std::string change_of(const Wiki& wiki, const std::string& authored, const Claim& claim,
                      const KnownClaim& known, const Looked& looked, CitationFollower& follower) {
  const Doubt doubt{claim.heading, claim.citation, looked.state, looked.now};
  std::string text = "- " + utils::printable_line(doubt_text(doubt)) +
                     (claim.heading.empty() ? "" : ", in '" + utils::printable_line(claim.heading) + "'") +
                     (looked.only_formatting ? ", in white space alone" : "") + ":\n  > " +
                     utils::printable_line(sentence_of(authored, claim)) + "\n\n";
  if (looked.state == CitationState::moved) return text;
  const auto before = follower.cited_text(known.citation, known.print);
  if (!before) return text + "  The text that was cited is not to be had.\n\n";
  return text + diff_of(*before, text_now(wiki, looked.now).value_or("")) + "\n";
}

// ", added `a`, `b`" or "".
std::string listed(const char* what, const std::vector<std::string>& names) {
  if (names.empty()) return "";
  std::string text = std::string("; ") + what;
  for (std::size_t i = 0; i < names.size() && i < kMostSymbols; ++i)
    text += (i == 0 ? " `" : ", `") + utils::printable_line(names[i]) + "`";
  if (names.size() > kMostSymbols) text += " and " + std::to_string(names.size() - kMostSymbols) + " more";
  return text;
}

// A cited file that is another now, with both texts.
struct ChangedFile {
  const source::SourceFile* file;
  std::string before, after;
};

// Of several versions that the page cites, the one that is cited last.
std::vector<ChangedFile> changed_files(const Wiki& wiki, const source::SourceIndex& index,
                                       const KnownClaims& known, CitationFollower& follower) {
  std::map<std::string, FileVersion> versions;
  for (const KnownClaim& claim : known.all()) versions[claim.citation.path] = claim.print.file;
  std::vector<ChangedFile> files;
  for (const auto& [path, version] : versions) {
    const source::SourceFile* file = index.find(path);
    if (file == nullptr || version_hash(*file) == version.hash) continue;
    auto before = follower.past_text(version);
    auto after = source::read_source(wiki.paths().root, path);
    if (before && after) files.push_back({file, *std::move(before), *std::move(after)});
  }
  return files;
}

std::string changed_symbols(const std::vector<ChangedFile>& files) {
  source::SymbolBatch batch;
  for (const ChangedFile& changed : files)
    batch.add(changed.file->path, changed.file->language, changed.before);
  std::vector<std::vector<source::Symbol>> then;
  try {
    if (!files.empty()) then = batch.symbols(source::find_symbol_tool());
  } catch (const utils::Error& error) {
    change_logger.warning("cannot tell which symbols changed", error);
  }
  std::string text;
  for (std::size_t i = 0; i < then.size(); ++i) {
    const auto [added, removed, changed] = symbol_changes(
        LineText(files[i].before), then[i], LineText(files[i].after), files[i].file->symbols.all());
    const std::string symbols =
        listed("added", added) + listed("removed", removed) + listed("changed", changed);
    if (!symbols.empty())
      text += "- " + utils::printable_line(files[i].file->path) + ":" + symbols.substr(1) + "\n";
  }
  return text;
}

}  // namespace

std::optional<std::string> text_now(const Wiki& wiki, const std::optional<Citation>& place) {
  if (!place) return std::nullopt;
  const auto text = source::read_source(wiki.paths().root, place->path);
  if (!text) return std::nullopt;
  const LineText lines(*text);
  const LineRange range{place->first, place->last};
  return lines.has(range) ? std::optional(std::string(lines.block(range))) : std::nullopt;
}

std::string what_changed(const Wiki& wiki, const PlannedWiki& planned, const store::StoredRows& rows,
                         const std::string& page_id) {
  const Map* row = rows.find(page_id);
  if (row == nullptr) return "";
  const StandingPage page = read_standing_page(wiki.paths().pages, wiki.paths().page(page_id));
  const std::string authored = split_authored(page.text, "").text();
  const KnownClaims known(remembered_claims(*row));
  const auto follower = wiki.follower(planned);
  std::string text;
  std::size_t left_out = 0;
  for (const auto& [claim, remembered] : known_in(authored, known)) {
    const Looked looked = follower->look(remembered->citation, remembered->print);
    if (looked.state == CitationState::same || looked.state == CitationState::unknown) continue;
    const std::string change = change_of(wiki, authored, claim, *remembered, looked, *follower);
    if (text.size() + change.size() > kChangesBudget) {
      ++left_out;
    } else {
      text += change;
    }
  }
  if (left_out > 0) text += "and " + std::to_string(left_out) + " more (ossilar plan lists them)\n";
  const std::string symbols = changed_symbols(changed_files(wiki, *planned.index, known, *follower));
  if (!symbols.empty() && text.size() + symbols.size() <= kChangesBudget)
    text += "In the files that it cites:\n\n" + symbols;
  return text.empty() ? "" : "## What changed since this was written\n\n" + text;
}

}  // namespace ossilar::workers::wiki
