// A loss is only told of: an author may have meant it, and the text before is in version control.
#include "ossilar/workers/wiki/host/author_warnings.h"

#include <fmt/format.h>

#include <algorithm>
#include <set>

#include "ossilar/utils/text.h"
#include "ossilar/workers/wiki/finalize.h"
#include "ossilar/workers/wiki/loose_citation.h"
#include "ossilar/workers/wiki/sections.h"

namespace ossilar::workers::wiki {
namespace {

// Fewer are no loss worth a word.
constexpr std::size_t kFewCitations = 4;
constexpr std::size_t kFewSections = 3;
// Longer labels are no mistyped titles: the distance costs the product of the lengths.
constexpr std::size_t kLongestTitle = 100;

// The only planned title that begins with these words, or "".
std::string completed_title(const std::string& beginning, const Plans& plans) {
  std::string found;
  for (std::size_t i = 0; i < plans.size(); ++i) {
    if (!utils::lower_case(plans[i].title).starts_with(beginning + " ")) continue;
    if (!found.empty()) return "";
    found = plans[i].title;
  }
  return found;
}

// The planned title that may be meant, or "": up to a quarter of its bytes are wrong, or one; or its end is
// missing.
std::string nearest_title(const std::string& label, const Plans& plans) {
  const std::string wanted = utils::lower_case(label);
  std::string best;
  std::size_t least = std::max<std::size_t>(wanted.size() / 4, 1) + 1;
  if (wanted.size() > kLongestTitle) return best;
  for (std::size_t i = 0; i < plans.size(); ++i) {
    const std::string& title = plans[i].title;
    if (title.size() > kLongestTitle) continue;
    const std::size_t apart = utils::edit_distance(wanted, utils::lower_case(title));
    if (apart < least) {
      least = apart;
      best = title;
    }
  }
  return best.empty() ? completed_title(wanted, plans) : best;
}

std::string unknown_title_warning(const std::string& label, const Plans& plans) {
  const std::string nearest = nearest_title(label, plans);
  return "link [" + label + "]: no page has this title" +
         (nearest.empty() ? ", so it is no link" : "; did you mean [" + nearest + "]?");
}

std::set<std::string> keys_of(const std::vector<std::string>& headings) {
  std::set<std::string> keys;
  for (const std::string& heading : headings) keys.insert(heading_key(heading));
  return keys;
}

}  // namespace

std::vector<std::string> bracket_warnings(const Brackets& brackets, const std::vector<std::string>& empty,
                                          const PlannedWiki& planned) {
  std::vector<std::string> warnings;
  append_warnings(warnings, brackets.invalid,
                  [&](const std::string& label) { return invalid_citation_warning(label, *planned.index); });
  append_warnings(warnings, brackets.malformed,
                  [&](const std::string& label) { return loose_citation_warning(label, *planned.index); });
  append_warnings(warnings, empty, [](const std::string& label) {
    return "citation [" + label + "]: these lines hold no letter or digit, so they are no evidence";
  });
  append_warnings(warnings, brackets.unknown,
                  [&](const std::string& label) { return unknown_title_warning(label, planned.plans); });
  return warnings;
}

std::vector<std::string> twin_warnings(const std::string& authored) {
  std::vector<std::string> warnings;
  std::set<std::string> seen, told;
  for (const std::string& heading : section_headings(authored)) {
    const std::string key = heading_key(heading);
    if (!seen.insert(key).second && told.insert(key).second) {
      warnings.push_back("section '" + heading +
                         "': there are several of this name, and a save finds only the first");
    }
  }
  return warnings;
}

std::vector<std::string> loss_warnings(const Replaced& replaced) {
  std::vector<std::string> warnings;
  if (replaced.cited_before >= kFewCitations && 2 * replaced.cited_now < replaced.cited_before) {
    warnings.push_back(fmt::format("loss: the page had {} citations before this save and has {} now",
                                   replaced.cited_before, replaced.cited_now));
  }
  const auto before = section_headings(replaced.before);
  const auto now = keys_of(section_headings(replaced.now));
  std::vector<std::string> lost;
  for (const std::string& heading : before)
    if (now.count(heading_key(heading)) == 0) lost.push_back("'" + heading + "'");
  if (before.size() >= kFewSections && 2 * lost.size() > before.size()) {
    warnings.push_back("loss: of the page's " + std::to_string(before.size()) +
                       " sections these are gone: " + utils::join(lost, ", "));
  }
  return warnings;
}

}  // namespace ossilar::workers::wiki
