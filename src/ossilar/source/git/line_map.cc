// libgit2 makes the diff; here its hunks become a map. A hunk without context says which lines were replaced,
// and every line outside the hunks is unchanged and shifted by what the hunks above it added and removed.
#include "ossilar/source/git/line_map.h"

#include <git2.h>

#include <algorithm>

#include "ossilar/source/git/git.h"
#include "ossilar/utils/text.h"

namespace ossilar::source {
namespace {

// git writes an empty side as the line after which it lies; as a range it begins one line further down.
LineRange range_of(int start, int lines) {
  const std::int64_t first = lines == 0 ? std::int64_t{start} + 1 : start;
  return {first, first + lines - 1};
}

}  // namespace

LineMap::LineMap(std::string_view before, std::string_view after)
    : lines_before_(static_cast<std::int64_t>(utils::count_lines(before))) {
  if (before == after) return;
  use_libgit2();
  git_diff_options options{};
  git_diff_options_init(&options, GIT_DIFF_OPTIONS_VERSION);
  // A text with a NUL byte would be called binary, without any hunk.
  options.flags = GIT_DIFF_FORCE_TEXT | GIT_DIFF_PATIENCE | GIT_DIFF_INDENT_HEURISTIC;
  options.context_lines = 0;
  options.interhunk_lines = 0;
  const auto take = [](const git_diff_delta*, const git_diff_hunk* hunk, void* hunks) {
    static_cast<std::vector<Hunk>*>(hunks)->push_back(
        {range_of(hunk->old_start, hunk->old_lines), range_of(hunk->new_start, hunk->new_lines)});
    return 0;
  };
  if (git_diff_buffers(before.data(), before.size(), "text", after.data(), after.size(), "text", &options,
                       nullptr, nullptr, take, nullptr, &hunks_) != 0) {
    throw git_error("cannot compare two texts");
  }
  for (const Hunk& hunk : hunks_) {
    removed_ += hunk.before.last - hunk.before.first + 1;
    added_ += hunk.after.last - hunk.after.first + 1;
  }
}

// Something put in between is a hunk without lines of `before`: it begins within the range and not at its
// first line.
std::optional<LineRange> LineMap::image(LineRange range) const {
  std::int64_t shift = 0;
  for (const Hunk& hunk : hunks_) {
    if (hunk.before.first > range.last) break;
    const bool is_above = hunk.before.last < range.first && hunk.before.first <= range.first;
    if (!is_above) return std::nullopt;
    shift = hunk.after.last - hunk.before.last;
  }
  return LineRange{range.first + shift, range.last + shift};
}

LineRange LineMap::stretch_around(LineRange range) const {
  LineRange stretch{1, lines_before_};
  for (const Hunk& hunk : hunks_) {
    if (hunk.before.first > range.last) {
      stretch.last = hunk.before.first - 1;
      break;
    }
    stretch.first = hunk.before.last + 1;
  }
  return stretch;
}

LineRange LineMap::place_of(LineRange range) const {
  // The line before the range and the one behind it are looked for: each is unchanged, or lies in a hunk,
  // whose whole new side then belongs to the place.
  LineRange place{range.first, range.last};
  std::int64_t shift = 0;
  bool is_begun = false;
  for (const Hunk& hunk : hunks_) {
    if (hunk.before.first > range.last + 1) break;
    const std::int64_t after = hunk.after.last - hunk.before.last;
    // A hunk that ends above the range, and one that adds lines right above it, only shift it.
    if (hunk.before.last < range.first && hunk.before.first <= range.first) {
      shift = after;
      continue;
    }
    if (hunk.before.first > range.last) break;
    if (!is_begun) {
      place.first = hunk.before.first < range.first ? hunk.after.first : range.first + shift;
      is_begun = true;
    }
    shift = after;
    place.last = hunk.before.last > range.last ? hunk.after.last : range.last + shift;
  }
  if (!is_begun) return {range.first + shift, range.last + shift};
  return {place.first, std::max(place.last, place.first - 1)};
}

}  // namespace ossilar::source
