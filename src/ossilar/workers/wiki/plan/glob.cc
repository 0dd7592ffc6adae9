// The pattern becomes a list of tokens, and a path is read once while all tokens that may come next are kept
// as a set (Thompson's simulation of an automaton, 1968). The plain way, trying each length of a star in
// turn, takes time exponential in the number of stars (*a*a*a*b), and patterns come from a file that anybody
// may have written.
#include "ossilar/workers/wiki/plan/glob.h"

#include <algorithm>
#include <utility>

namespace ossilar::workers::wiki {
namespace {

// The character that begins at `at`, which moves past it. Paths and patterns are UTF-8. Of other bytes it
// only matters that reading goes on: a stray one stands for itself, as does a lead byte at the end of the
// text.
char32_t next_character(std::string_view text, std::size_t& at) {
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char lead = byte(at);
  // The bounds of UTF-8's lead bytes. Below 0xC0 is ASCII, or a byte that continues a character.
  const std::size_t length = lead < 0xC0 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
  if (length == 1 || text.size() - at < length) {
    ++at;
    return lead;
  }
  auto character = static_cast<char32_t>(lead & (0xFFU >> (length + 1)));
  for (std::size_t i = 1; i < length; ++i) character = character << 6U | (byte(at + i) & 0x3FU);
  at += length;
  return character;
}

std::u32string characters_of(std::string_view text) {
  std::u32string out;
  for (std::size_t at = 0; at < text.size();) out.push_back(next_character(text, at));
  return out;
}

// "./src/" and "/src" mean "src": the paths of an index begin at the root and end in a name.
std::string_view trimmed(std::string_view pattern) {
  while (pattern.substr(0, 2) == "./") pattern.remove_prefix(2);
  while (!pattern.empty() && pattern.front() == '/') pattern.remove_prefix(1);
  while (!pattern.empty() && pattern.back() == '/') pattern.remove_suffix(1);
  return pattern;
}

bool is_below(std::string_view path, std::string_view folder) {
  return path.size() > folder.size() && path[folder.size()] == '/' && path.substr(0, folder.size()) == folder;
}

}  // namespace

// The set of tokens that may come next while a path is read. A state is the index of a token; the number of
// tokens itself is the state behind the last one, where the path may end.
//
// Invariant: a state is in states_ at most once, so a character costs at most the number of tokens. seen_ has
// the generation (the number of characters read) in which a state was added last, so it needs no clearing.
class Glob::Run {
 public:
  explicit Run(const std::vector<Token>& tokens) : tokens_(tokens), seen_(tokens.size() + 1, 0) { add(0); }

  bool alive() const { return !states_.empty(); }
  bool at_end() const { return seen_[tokens_.size()] == generation_; }

  void read(char32_t character) {
    std::swap(states_, before_);
    states_.clear();
    ++generation_;
    for (const std::size_t state : before_) advance(state, character);
  }

 private:
  // Adds what may follow `state` after it has read `character`.
  void advance(std::size_t state, char32_t character) {
    if (state == tokens_.size()) return;
    const Token& token = tokens_[state];
    if (!accepts(token, character)) return;
    switch (token.kind) {
      case Kind::any_run:
      case Kind::deep_run:
        return add(state);
      case Kind::inside_part:
        add(state);
        if (character == U'/') add(state - 1);  // the part is over: back to whole_parts
        return;
      case Kind::whole_parts:
        return;  // reads nothing itself: add() has entered what follows it
      default:
        return add(state + 1);
    }
  }

  // Adds `state`, and all that can be reached from it without reading: a run may be empty. A loop, not a
  // recursion: a pattern may be nothing but stars.
  void add(std::size_t state) {
    for (;; ++state) {
      if (std::exchange(seen_[state], generation_) == generation_) return;
      states_.push_back(state);
      if (state == tokens_.size()) return;
      const Kind kind = tokens_[state].kind;
      if (kind == Kind::whole_parts) {
        // Either a part begins here (the token behind it), or no part comes and the token after that is next.
        add_one(state + 1);
        ++state;
      } else if (kind != Kind::any_run && kind != Kind::deep_run) {
        return;
      }
    }
  }

  // inside_part, which is never empty and so leads nowhere by itself.
  void add_one(std::size_t state) {
    if (std::exchange(seen_[state], generation_) != generation_) states_.push_back(state);
  }

  const std::vector<Token>& tokens_;
  std::vector<std::size_t> seen_;  // the generation in which a state was added last
  std::vector<std::size_t> states_, before_;
  std::size_t generation_ = 1;
};

Glob::Glob(std::string_view pattern) : pattern_(trimmed(pattern)), characters_(characters_of(pattern_)) {
  compile();
  // Only a plain last part names a folder: src/* would otherwise match all below src/. An escaped character
  // counts as special here, which loses nothing but the files below a folder of such a name.
  const std::string_view last_part = std::string_view(pattern_).substr(pattern_.rfind('/') + 1);
  names_folder_ = last_part.find_first_of("*?[") == std::string_view::npos;
  // What stands before the first special character, and behind the last: two cheap tests that rule out most
  // paths.
  plain_prefix_ = pattern_.substr(0, pattern_.find_first_of("*?[\\"));
  if (!names_folder_) plain_suffix_ = pattern_.substr(pattern_.find_last_of("*?[]\\") + 1);
}

void Glob::compile() {
  for (std::size_t at = 0; at < characters_.size();) {
    const char32_t character = characters_[at];
    if (character == U'*') {
      at = compile_stars(at);
    } else if (character == U'[') {
      at = compile_set(at);
    } else if (character == U'?') {
      tokens_.push_back({Kind::any, 0, false, {}});
      ++at;
    } else {
      if (character == U'\\' && at + 1 < characters_.size()) ++at;
      tokens_.push_back({Kind::literal, characters_[at++], false, {}});
    }
  }
}

// Compiles the stars at `at`; returns where the pattern goes on. One star stays within a part. Two or more
// cross parts; between slashes, or at the beginning before one, they stand for whole parts and take the slash
// with them.
std::size_t Glob::compile_stars(std::size_t at) {
  const std::size_t end = std::min(characters_.find_first_not_of(U'*', at), characters_.size());
  const bool starts_part = at == 0 || characters_[at - 1] == U'/';
  if (end - at == 1) {
    tokens_.push_back({Kind::any_run, 0, false, {}});
  } else if (starts_part && end < characters_.size() && characters_[end] == U'/') {
    tokens_.push_back({Kind::whole_parts, 0, false, {}});
    tokens_.push_back({Kind::inside_part, 0, false, {}});
    return end + 1;
  } else {
    tokens_.push_back({Kind::deep_run, 0, false, {}});
  }
  return end;
}

// Compiles the set at `at`; returns where the pattern goes on. A bracket that is never closed is a plain
// character. Right after the opening, `]` belongs to the set; so does `-` at either end.
std::size_t Glob::compile_set(std::size_t at) {
  Token token{Kind::set, 0, false, {}};
  std::size_t i = at + 1;
  token.negated = i < characters_.size() && (characters_[i] == U'!' || characters_[i] == U'^');
  if (token.negated) ++i;
  const std::size_t close = characters_.find(U']', i + 1);
  if (close == std::u32string::npos) {
    tokens_.push_back({Kind::literal, U'[', false, {}});
    return at + 1;
  }
  while (i < close) {
    const bool range = i + 2 < close && characters_[i + 1] == U'-';
    token.set.emplace_back(characters_[i], characters_[range ? i + 2 : i]);
    i += range ? 3 : 1;
  }
  tokens_.push_back(std::move(token));
  return close + 1;
}

// Whether the token may read the character; a '/' only where parts are crossed.
bool Glob::accepts(const Token& token, char32_t character) {
  switch (token.kind) {
    case Kind::literal:
      return character == token.literal;
    case Kind::any:
    case Kind::any_run:
      return character != U'/';
    case Kind::set: {
      const auto holds = [&](const auto& range) {
        return range.first <= character && character <= range.second;
      };
      return character != U'/' && std::any_of(token.set.begin(), token.set.end(), holds) != token.negated;
    }
    default:
      return true;
  }
}

bool Glob::matches(std::string_view path) const {
  if (pattern_.empty()) return false;
  // As it stands, first: "app/[id]/page.ts" is a real path in some repositories.
  if (path == pattern_ || is_below(path, pattern_)) return true;
  if (!path.starts_with(plain_prefix_) || !path.ends_with(plain_suffix_)) return false;
  Run run(tokens_);
  for (std::size_t at = 0; at < path.size() && run.alive();) {
    const char32_t character = next_character(path, at);
    if (character == U'/' && names_folder_ && run.at_end()) return true;  // what lies below the folder
    run.read(character);
  }
  return run.at_end();
}

std::vector<std::string> Glob::matching_files(const source::SourceIndex& index) const {
  std::vector<std::string> out;
  const auto& files = index.files();  // by their bytes: those with a common beginning stand together
  auto file =
      std::lower_bound(files.begin(), files.end(), plain_prefix_,
                       [](const auto& entry, const std::string& prefix) { return entry->path < prefix; });
  for (; file != files.end() && (*file)->path.compare(0, plain_prefix_.size(), plain_prefix_) == 0; ++file) {
    if ((*file)->kind == source::FileKind::text && matches((*file)->path)) out.push_back((*file)->path);
  }
  return out;
}

bool glob_matches(std::string_view pattern, std::string_view path) { return Glob(pattern).matches(path); }

}  // namespace ossilar::workers::wiki
