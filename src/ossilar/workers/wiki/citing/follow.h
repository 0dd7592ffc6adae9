// Where the lines that a citation cites stand in another version of the file: the rules by which a citation
// is followed, and by which it is not. follower.cc finds the two versions and asks here.
//
// No rule guesses. Lines that no rule can place for certain are `changed`, `gone` or `ambiguous`, and the
// page's author is asked.
//
// Thread-safety: functions without state, and objects that do not change once they are made; any thread may
// use them. LineMap's constructor may throw, as it says.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "ossilar/workers/wiki/citing/fingerprint.h"
#include "ossilar/workers/wiki/citing/lines.h"

namespace ossilar::workers::wiki {

enum class CitationState {
  same,       // the lines hold what was cited
  moved,      // what was cited stands once, elsewhere: in the file, or in the file that it was renamed to
  changed,    // its symbol or its surroundings are there, its text is not
  gone,       // neither is there
  ambiguous,  // the text stands in several places, and nothing tells them apart
  unknown,    // nobody knows what was cited
};

// "same", "moved", ..., as programs read it.
const char* state_name(CitationState state);

// Whether a page that has such a citation needs its author.
bool is_in_doubt(CitationState state);

struct Followed {
  CitationState state = CitationState::unknown;
  // Where it is now. Of a changed citation: what stands in its place, as far as that is known.
  std::optional<LineRange> now;
  bool only_formatting = false;  // of a changed one: the text differs in white space alone
};

// Whether the file has a function or type of this full_name() now.
using HasSymbol = std::function<bool(const std::string& name)>;

// Two versions of a file, for any number of citations.
class Versions {
 public:
  Versions(const LineText& before, const LineText& after);
  // The objects are kept by reference and must outlive this.
  Versions(LineText&&, const LineText&) = delete;
  Versions(const LineText&, LineText&&) = delete;

  // `cited` are lines of the version before, `symbol` is what they lay in.
  Followed follow(LineRange cited, const std::string& symbol, const HasSymbol& has_symbol) const;

  const source::LineMap& map() const { return map_; }

 private:
  bool is_certain(LineRange cited, LineRange now) const;
  bool has_anchor(LineRange stretch) const;

  const LineText& before_;
  const LineText& after_;
  source::LineMap map_;
  std::unordered_map<std::string_view, int> counts_before_, counts_after_;  // how often each line stands
};

// The same without the version before: by what is remembered of the citation, which was `cited`.
Followed follow_without_text(const Fingerprint& print, LineRange cited, const LineText& after,
                             const HasSymbol& has_symbol);

}  // namespace ossilar::workers::wiki
