#include "ossilar/workers/wiki/plan/glob.h"

#include <algorithm>
#include <utility>

namespace ossilar::workers::wiki {
namespace {

// The character that begins at `at`, which moves past it. A byte that is not UTF-8 stands for itself.
char32_t next_character(std::string_view text, std::size_t& at) {
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char lead = byte(at);
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

// "./src/" and "/src" mean "src".
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

// The tokens that may come next, as a path is read: each at most once, so a character costs at most their
// number.
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
        if (character == U'/') add(state - 1);
        return;
      case Kind::whole_parts:
        return;
      default:
        return add(state + 1);
    }
  }

  void add(std::size_t state) {
    for (;; ++state) {
      if (std::exchange(seen_[state], generation_) == generation_) return;
      states_.push_back(state);
      if (state == tokens_.size()) return;
      const Kind kind = tokens_[state].kind;
      if (kind == Kind::whole_parts) {
        add_one(state + 1);
        ++state;
      } else if (kind != Kind::any_run && kind != Kind::deep_run) {
        return;
      }
    }
  }

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
  const std::string_view last_part = std::string_view(pattern_).substr(pattern_.rfind('/') + 1);
  names_folder_ = last_part.find_first_of("*?[") == std::string_view::npos;
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

// A bracket that is never closed is a plain character. A `]` right after the opening belongs to the set.
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
  if (path == pattern_ || is_below(path, pattern_)) return true;
  if (!path.starts_with(plain_prefix_) || !path.ends_with(plain_suffix_)) return false;
  Run run(tokens_);
  for (std::size_t at = 0; at < path.size() && run.alive();) {
    const char32_t character = next_character(path, at);
    if (character == U'/' && names_folder_ && run.at_end()) return true;
    run.read(character);
  }
  return run.at_end();
}

std::vector<std::string> Glob::matching_files(const source::SourceIndex& index) const {
  std::vector<std::string> out;
  const auto& files = index.files();
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
