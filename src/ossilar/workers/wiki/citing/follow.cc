// The order of the rules is the order of their evidence.
//
// 1. The diff of the two versions maps the whole block, byte for byte, to one place. That is what a reviewer
//    sees too. A diff may pair equal lines wrongly, though: where the block stands more than once, or has too
//    few letters to mean anything, it counts only with two unchanged lines on each side and, in the same
//    unchanged stretch, a line that stands once in each version.
// 2. The diff sees the block removed, but its text stood once in the file before and stands once in it now,
//    and is long enough not to be a coincidence: it was moved past something that stayed.
// 3. Else the text is looked for to say what is wrong: in several places (ambiguous) or nowhere.
#include "ossilar/workers/wiki/citing/follow.h"

#include <algorithm>

#include "ossilar/utils/text.h"

namespace ossilar::workers::wiki {
namespace {

// A block with fewer letters and digits, such as "} else {", may be anywhere.
constexpr std::size_t kFewLetters = 6;
// What makes a coincidence unlikely when nothing but the text itself says that it is the same: some two lines
// of code.
constexpr std::size_t kManyLetters = 20;
// Unchanged lines on each side that tell a block from its twins.
constexpr std::int64_t kContext = 2;

// Bytes that are hashed at most to find a block of which only the hash is known. A file of equal lines would
// otherwise take the square of its size.
constexpr std::size_t kMostHashed = std::size_t{32} << 20U;

std::unordered_map<std::string_view, int> counts_of(const LineText& text) {
  std::unordered_map<std::string_view, int> counts;
  for (std::int64_t line = 1; line <= text.size(); ++line) ++counts[text.line(line)];
  return counts;
}

int count_in(const std::unordered_map<std::string_view, int>& counts, std::string_view line) {
  const auto found = counts.find(line);
  return found == counts.end() ? 0 : found->second;
}

Followed at(LineRange cited, LineRange now) {
  return {cited == now ? CitationState::same : CitationState::moved, now, false};
}

// For text that is nowhere. `place` is what stands where it stood; it is empty if nothing does.
Followed missing(std::string_view block_before, const LineText& after, LineRange place, bool has_symbol) {
  const bool is_filled = after.has(place);
  if (!is_filled && !has_symbol) return {CitationState::gone, std::nullopt, false};
  Followed changed{CitationState::changed, std::nullopt, false};
  if (!is_filled) return changed;
  changed.now = place;
  changed.only_formatting = without_formatting(block_before) == without_formatting(after.block(place));
  return changed;
}

// The places at which a block of so many lines stands whose first line and whole have the hashes of `print`.
// None when the search was given up.
std::optional<std::vector<LineRange>> places_by_hash(const Fingerprint& print, std::int64_t lines,
                                                     const LineText& text) {
  const Near near = Near::of_text(print.near);
  std::vector<LineRange> places;
  std::size_t hashed = 0;
  for (LineRange at{1, lines}; at.last <= text.size(); ++at.first, ++at.last) {
    if (!near.first.empty() && line_hash(text.line(at.first)) != near.first) continue;
    const std::string_view block = text.block(at);
    hashed += block.size();
    if (hashed > kMostHashed) return std::nullopt;
    if (short_hash(block) == print.text) places.push_back(at);
  }
  return places;
}

}  // namespace

const char* state_name(CitationState state) {
  switch (state) {
    case CitationState::same:
      return "same";
    case CitationState::moved:
      return "moved";
    case CitationState::changed:
      return "changed";
    case CitationState::gone:
      return "gone";
    case CitationState::ambiguous:
      return "ambiguous";
    case CitationState::unknown:
      return "unknown";
  }
  return "";
}

bool is_in_doubt(CitationState state) {
  return state == CitationState::changed || state == CitationState::gone || state == CitationState::ambiguous;
}

Versions::Versions(const LineText& before, const LineText& after)
    : before_(before),
      after_(after),
      map_(before.all(), after.all()),
      counts_before_(counts_of(before)),
      counts_after_(counts_of(after)) {}

bool Versions::has_anchor(LineRange stretch) const {
  for (std::int64_t number = stretch.first; number <= stretch.last; ++number) {
    const std::string_view line = before_.line(number);
    if (letters_in(line) > 0 && count_in(counts_before_, line) == 1 && count_in(counts_after_, line) == 1)
      return true;
  }
  return false;
}

// The beginning and the end of a file are as good as any line beside the block.
bool Versions::is_certain(LineRange cited, LineRange now) const {
  const std::string_view block = before_.block(cited);
  const bool is_single = before_.places_of(block, 2).size() == 1 && after_.places_of(block, 2).size() == 1;
  if (is_single && letters_in(block) >= kFewLetters) return true;
  const LineRange stretch = map_.stretch_around(cited);
  const bool above =
      cited.first - stretch.first >= kContext || (stretch.first == 1 && now.first == cited.first);
  const bool below =
      stretch.last - cited.last >= kContext ||
      (stretch.last == before_.size() && after_.size() - now.last == before_.size() - cited.last);
  return above && below && has_anchor(stretch);
}

Followed Versions::follow(LineRange cited, const std::string& symbol, const HasSymbol& has_symbol) const {
  const std::string_view block = before_.block(cited);
  const auto image = map_.image(cited);
  if (image && is_certain(cited, *image)) return at(cited, *image);
  const auto places = after_.places_of(block, 2);
  if (places.size() == 1 && before_.places_of(block, 2).size() == 1 && letters_in(block) >= kManyLetters)
    return at(cited, {places.front(), places.front() + length(cited) - 1});
  if (!places.empty()) return {CitationState::ambiguous, std::nullopt, false};
  return missing(block, after_, map_.place_of(cited), !symbol.empty() && has_symbol(symbol));
}

// Without the text there is no diff: what stood beside the block has to tell. A block that stood once and
// stands once is it, if it is long enough, or long enough to mean anything and beside some of the lines
// beside which it was; any other needs the same neighbours as before, and to be the only one that has them.
Followed follow_without_text(const Fingerprint& print, LineRange cited, const LineText& after,
                             const HasSymbol& has_symbol) {
  const auto places = places_by_hash(print, length(cited), after);
  if (!places) return {CitationState::ambiguous, std::nullopt, false};
  if (places->empty()) {
    const bool is_there = !print.symbol.empty() && has_symbol(print.symbol);
    return {is_there ? CitationState::changed : CitationState::gone, std::nullopt, false};
  }
  const Near near = Near::of_text(print.near);
  if (places->size() == 1 && print.twins == 1) {
    const std::size_t letters = letters_in(after.block(places->front()));
    const bool is_beside = agreement(near, Near::of(after, places->front())) != Agreement::none;
    if (letters >= kManyLetters || (letters >= kFewLetters && is_beside)) return at(cited, places->front());
  }
  std::vector<LineRange> fitting;
  std::copy_if(places->begin(), places->end(), std::back_inserter(fitting),
               [&](LineRange place) { return agreement(near, Near::of(after, place)) == Agreement::full; });
  if (fitting.size() == 1) return at(cited, fitting.front());
  return {CitationState::ambiguous, std::nullopt, false};
}

}  // namespace ossilar::workers::wiki
