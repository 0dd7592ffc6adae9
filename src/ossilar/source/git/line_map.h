// Where the lines of one version of a file stand in another. Citations are followed with it
// (workers/wiki/citing).
//
// Thread-safety: a LineMap does not change once it is made; any thread may make and use one.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

namespace ossilar::source {

// Lines of a text, counted from 1, both ends included.
struct LineRange {
  std::int64_t first = 0;
  std::int64_t last = 0;
  bool operator==(const LineRange&) const = default;
};

// A patience diff of two texts, with the shifts that git's own diff makes (its indent heuristic), so that it
// agrees with what a reviewer sees.
class LineMap {
 public:
  // Any bytes. Throws utils::Error when libgit2 fails, as for want of memory. Takes the time of a diff.
  LineMap(std::string_view before, std::string_view after);

  // The lines of `after` that are the lines `range` of `before`: all of them unchanged, and still one after
  // the other. None if one of them was changed or removed, or something was put in between.
  std::optional<LineRange> image(LineRange range) const;

  // The stretch of unchanged lines of `before` that `range` lies in, for one that has an image.
  LineRange stretch_around(LineRange range) const;

  // The lines of `after` that stand where `range` stood: between the nearest unchanged lines above and
  // below. `last` is below `first` if nothing is there any more.
  LineRange place_of(LineRange range) const;

  // How many lines were removed or added; a changed line counts once on each side.
  std::int64_t removed() const { return removed_; }
  std::int64_t added() const { return added_; }

 private:
  // A difference: these lines of `before` were replaced by those of `after`. Either may be empty, and then
  // its `last` is `first` - 1.
  struct Hunk {
    LineRange before, after;
  };

  std::vector<Hunk> hunks_;  // in order
  std::int64_t lines_before_ = 0;
  std::int64_t removed_ = 0;
  std::int64_t added_ = 0;
};

}  // namespace ossilar::source
