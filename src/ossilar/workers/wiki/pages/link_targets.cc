// The definitions are the last lines of the generated part, but for the record (see finalize.cc). They are
// looked for from its end: a line of a diagram may look like one.
//
// Targets are compared as paths from the wiki's root. Page ids have no character that a link would encode,
// and of other targets only the way up changes, so nothing is decoded.
#include "ossilar/workers/wiki/pages/link_targets.h"

#include <algorithm>
#include <filesystem>
#include <vector>

#include "ossilar/workers/wiki/finalize.h"
#include "ossilar/workers/wiki/pages/page_record.h"

namespace ossilar::workers::wiki {
namespace {

namespace fs = std::filesystem;

// A part of a text.
struct Span {
  std::size_t begin = 0;
  std::size_t end = 0;
};

// Where the target of a definition stands in `text`, whose line begins at `begin` and ends at `end`; of no
// length if the line is none.
Span target_in(std::string_view text, std::size_t begin, std::size_t end) {
  const std::string_view line = text.substr(begin, end - begin);
  const std::size_t colon = line.find("]: ");
  if (!line.starts_with("[") || colon == std::string_view::npos) return {end, end};
  return {begin + colon + 3, end};
}

// The targets of the definitions, the last one first.
std::vector<Span> targets_in(std::string_view page_text) {
  const std::string bare = without_record(page_text);
  const std::string_view part = generated_of(bare);
  const std::size_t top = bare.size() - part.size();
  std::size_t end = top + part.find_last_not_of('\n') + 1;
  std::vector<Span> targets;
  while (end > top) {
    const std::size_t feed = bare.rfind('\n', end - 1);
    const std::size_t begin = feed == std::string::npos || feed < top ? top : feed + 1;
    const Span target = target_in(bare, begin, end);
    if (target.begin == target.end) break;
    targets.push_back(target);
    end = begin == top ? top : begin - 1;
  }
  return targets;
}

fs::path file_of(const std::string& page_id) { return "pages/" + page_id + ".md"; }

// Whether a hand put it there: a save only makes ways from file to file.
bool is_no_way(std::string_view target) {
  return target.find("://") != std::string_view::npos || target.starts_with("/") || target.starts_with("#");
}

// What a target on the page leads to, from the wiki's root.
fs::path led_to(const std::string& page_id, std::string_view target) {
  return (file_of(page_id).parent_path() / target).lexically_normal();
}

}  // namespace

bool links_to(std::string_view page_text, const std::string& page_id, const std::string& target) {
  const std::vector<Span> targets = targets_in(page_text);
  return std::any_of(targets.begin(), targets.end(), [&](const Span& span) {
    const std::string_view way = page_text.substr(span.begin, span.end - span.begin);
    return !is_no_way(way) && led_to(page_id, way) == file_of(target);
  });
}

std::string relinked(std::string_view page_text, const std::string& page_id, const Renamed& renamed) {
  const std::string& id_now = page_id == renamed.from ? renamed.to : page_id;
  std::string text(page_text);
  for (const Span& span : targets_in(page_text)) {  // from the end, so that those before keep their places
    const std::string_view way = page_text.substr(span.begin, span.end - span.begin);
    if (is_no_way(way)) continue;
    fs::path goal = led_to(page_id, way);
    const bool is_renamed = goal == file_of(renamed.from);
    if (!is_renamed && id_now == page_id) continue;
    if (is_renamed) goal = file_of(renamed.to);
    text.replace(span.begin, span.end - span.begin,
                 goal.lexically_relative(file_of(id_now).parent_path()).string());
  }
  return text;
}

}  // namespace ossilar::workers::wiki
