// CommonMark does not say where in a text a link stands, so each bracket that could be a citation gets a
// label of its own and the text is read once: the labels that become links are the places. That leaves out
// code and HTML just as citations.h does.
//
// Sentences are found by plain rules. A sentence is what a reader is shown and what tells whether the author
// wrote something new, so nothing breaks where a rule cuts one too long or too short.
#include "ossilar/workers/wiki/citing/claims.h"

#include <algorithm>
#include <cctype>
#include <iterator>
#include <map>
#include <optional>
#include <set>
#include <utility>

#include "ossilar/utils/fold.h"
#include "ossilar/utils/hash.h"
#include "ossilar/utils/markdown.h"
#include "ossilar/utils/text.h"
#include "ossilar/workers/wiki/link_text.h"
#include "ossilar/workers/wiki/sections.h"

namespace ossilar::workers::wiki {
namespace {

// 32 bits: it is compared with the same citation's on the same page only.
constexpr std::size_t kSaysDigits = 8;

// Bytes of a long sentence that are shown on each side of its citation.
constexpr std::size_t kShownAround = 240;

struct Place {
  Citation citation;
  std::size_t begin = 0, end = 0;
};

// The brackets whose label is one of the citations.
std::vector<Place> possible_places(std::string_view authored, const std::vector<Citation>& valid) {
  const std::set<Citation> known(valid.begin(), valid.end());
  std::vector<Place> places;
  for (const std::string_view label : bracketed(authored)) {
    const auto citation = parse_citation(utils::collapse_label(label));
    if (!citation || known.count(*citation) == 0) continue;
    const auto begin = static_cast<std::size_t>(label.data() - authored.data());
    places.push_back(Place{*citation, begin, begin + label.size()});
  }
  return places;
}

// The places that are links.
std::vector<Place> linked_places(std::string_view authored, const std::vector<Place>& possible) {
  // An author cannot write one of these labels: the text would have to hold its own hash.
  const std::string stem = "ossilar-" + utils::sha256_hex(authored) + "-";
  std::string probe;
  std::size_t copied = 0;
  for (std::size_t i = 0; i < possible.size(); ++i) {
    probe.append(authored.substr(copied, possible[i].begin - copied)).append(stem);
    probe += std::to_string(i);
    copied = possible[i].end;
  }
  probe.append(authored.substr(copied));
  probe.append("\n").append(utils::closing_line(authored)).append("\n\n");
  for (std::size_t i = 0; i < possible.size(); ++i) {
    const std::string label = stem + std::to_string(i);
    probe.append("[").append(label).append("]: ").append(label).append("\n");
  }
  std::set<std::size_t> linked;
  for (const utils::Link& link : utils::links(probe))
    if (link.url.starts_with(stem)) linked.insert(std::stoul(link.url.substr(stem.size())));
  std::vector<Place> places;
  places.reserve(linked.size());
  for (const std::size_t i : linked) places.push_back(possible[i]);
  return places;
}

// ---- Sentences.

bool is_blank(char c) { return c == ' ' || c == '\t' || c == '\n'; }

// Whether a line begins a block of its own, whatever stands above it: a heading, an item of a list, a row of
// a table, a quote.
bool begins_block(std::string_view line) {
  line.remove_prefix(std::min(line.find_first_not_of(" \t"), line.size()));
  if (line.empty()) return true;
  if (line.front() == '#' || line.front() == '|' || line.front() == '>') return true;
  const auto is_digit = [](char c) { return std::isdigit(static_cast<unsigned char>(c)) != 0; };
  const std::size_t digits =
      static_cast<std::size_t>(std::find_if_not(line.begin(), line.end(), is_digit) - line.begin());
  const std::string_view mark = line.substr(digits, 2);
  if (digits > 0) return mark == ". " || mark == ") ";
  return mark == "- " || mark == "* " || mark == "+ ";
}

// A heading's block is its own line, even if a paragraph follows at once.
bool is_heading(std::string_view line) {
  line.remove_prefix(std::min(line.find_first_not_of(" \t"), line.size()));
  const std::size_t marks = std::min(line.find_first_not_of('#'), line.size());
  return marks >= 1 && marks <= 6 && (marks == line.size() || line[marks] == ' ' || line[marks] == '\t');
}

struct Span {
  std::size_t begin = 0, end = 0;

  std::string_view of(std::string_view text) const { return text.substr(begin, end - begin); }
};

constexpr std::string_view kClosingMarks = "\"')*_`";
constexpr std::string_view kStops = ".!?,;";

bool is_stop(char c) { return kStops.find(c) != std::string_view::npos; }
bool is_closing_mark(char c) { return kClosingMarks.find(c) != std::string_view::npos; }

// Whether a byte behind the end of a sentence, and behind its citations, still belongs to it. A mark behind a
// blank opens the next one.
bool belongs_to_end(std::string_view lines, std::size_t at) {
  return is_stop(lines[at]) || (is_closing_mark(lines[at]) && !is_blank(lines[at - 1]));
}

// Where an earlier version began a sentence that begins at `begin`: behind the marks that open it.
std::size_t behind_marks(std::string_view text, std::size_t begin) {
  while (begin < text.size() &&
         (is_blank(text[begin]) || is_closing_mark(text[begin]) || is_stop(text[begin])))
    ++begin;
  return begin;
}

// Divides text[begin, end), the lines of one block, into sentences. Citations behind a full stop belong to
// the sentence before it, so a sentence begins with the first byte behind them.
void add_sentences(std::string_view text, Span block, std::vector<Span>& sentences) {
  const std::string_view lines = text.substr(block.begin, block.end - block.begin);
  std::size_t begin = 0;
  bool is_over = false;
  int depth = 0;  // of brackets; one that is never closed joins the rest to its sentence
  for (std::size_t i = 0; i < lines.size(); ++i) {
    const char c = lines[i];
    if (c == '[') ++depth;
    const bool is_inside = depth > 0;
    if (c == ']' && depth > 0) --depth;
    if (is_inside || is_blank(c)) continue;
    if (is_over && !belongs_to_end(lines, i)) {
      sentences.push_back({block.begin + begin, block.begin + i});
      begin = i;
      is_over = false;
    }
    if (ends_sentence(lines, i)) is_over = true;
  }
  sentences.push_back({block.begin + begin, block.end});
}

// All sentences of the text, in order. A block ends at a blank line and where another begins.
std::vector<Span> sentences_of(std::string_view text) {
  std::vector<Span> sentences;
  std::optional<Span> block;
  const auto close = [&] {
    if (block) add_sentences(text, *block, sentences);
    block.reset();
  };
  for (std::size_t begin = 0; begin < text.size();) {
    const std::size_t end = std::min(text.find('\n', begin), text.size());
    const std::string_view line = text.substr(begin, end - begin);
    if (begins_block(line)) close();
    if (!utils::strip(line).empty()) {
      if (!block) block = Span{begin, end};
      block->end = end;
    }
    if (is_heading(line)) close();
    begin = end + 1;
  }
  close();
  return sentences;
}

std::string on_one_line(std::string_view text) {
  const auto words = utils::split_words(text);
  return utils::join({words.begin(), words.end()}, " ");
}

// What a sentence says: its text with each citation's lines left out, as a hash.
std::string saying(std::string_view written) {
  const std::string sentence = on_one_line(written);
  std::string text;
  std::size_t copied = 0;
  for (const std::string_view label : bracketed(sentence)) {
    const auto citation = parse_citation(utils::collapse_label(label));
    if (!citation) continue;
    const auto begin = static_cast<std::size_t>(label.data() - sentence.data());
    text.append(sentence, copied, begin - copied).append(":L");
    copied = begin + label.size();
  }
  text.append(sentence, copied, std::string::npos);
  return utils::sha256_hex(text).substr(0, kSaysDigits);
}

// What the sentence said by the earlier rule, or "" if that is the same. `all` are the sentences of `text`.
std::string said_formerly(std::string_view text, const std::vector<Span>& all,
                          std::vector<Span>::const_iterator sentence) {
  Span former = *sentence;
  if (sentence != all.begin() && std::prev(sentence)->end == sentence->begin)
    former.begin = behind_marks(text, sentence->begin);
  if (const auto next = std::next(sentence); next != all.end() && next->begin == sentence->end)
    former.end = behind_marks(text, sentence->end);
  const bool is_same = former.begin == sentence->begin && former.end == sentence->end;
  return is_same || former.end < former.begin ? "" : saying(former.of(text));
}

// ---- Stretches.

struct United {
  std::vector<Citation> stretches;             // in the order of their first claims
  std::map<Citation, std::size_t> stretch_of;  // of each citation
};

// Citations in the order of their lines: one that begins within the stretch before it belongs to it.
United unite(const std::vector<KnownClaim>& claims) {
  std::map<Citation, std::size_t> first_places;
  for (std::size_t i = 0; i < claims.size(); ++i) first_places.emplace(claims[i].citation, i);
  std::vector<Citation> stretches;
  std::map<Citation, std::size_t> by_line;  // the stretch of each citation, by its place in `stretches`
  std::vector<std::pair<std::size_t, std::size_t>> order;  // of each stretch its first claim, and itself
  for (const auto& [citation, place] : first_places) {
    const bool overlaps = !stretches.empty() && stretches.back().path == citation.path &&
                          citation.first <= stretches.back().last;
    if (overlaps) {
      stretches.back().last = std::max(stretches.back().last, citation.last);
      order.back().first = std::min(order.back().first, place);
    } else {
      order.emplace_back(place, stretches.size());
      stretches.push_back(citation);
    }
    by_line[citation] = stretches.size() - 1;
  }
  std::sort(order.begin(), order.end());
  std::vector<std::size_t> rank(stretches.size());
  United united;
  united.stretches.reserve(stretches.size());
  for (std::size_t i = 0; i < order.size(); ++i) {
    rank[order[i].second] = i;
    united.stretches.push_back(stretches[order[i].second]);
  }
  for (const auto& [citation, stretch] : by_line) united.stretch_of[citation] = rank[stretch];
  return united;
}

void put(Map& map, const char* key, const std::string& text) {
  if (!text.empty()) map[key] = text;
}

}  // namespace

bool ends_sentence(std::string_view text, std::size_t at) {
  if (std::string_view(".!?").find(text[at]) == std::string_view::npos) return false;
  std::size_t next = at + 1;
  while (next < text.size() && is_closing_mark(text[next])) ++next;
  if (next == text.size()) return true;
  if (!is_blank(text[next])) return false;
  while (next < text.size() && is_blank(text[next])) ++next;
  return next == text.size() || std::islower(static_cast<unsigned char>(text[next])) == 0;
}

// Places, sentences and sections are walked side by side, so the work is linear in the text.
std::vector<Claim> claims_in(std::string_view authored, const std::vector<Citation>& valid) {
  const std::vector<Place> possible = possible_places(authored, valid);
  std::vector<Claim> claims;
  if (possible.empty()) return claims;
  const std::vector<Place> places = linked_places(authored, possible);
  const std::vector<Section> sections = sections_of(authored);
  const std::vector<Span> sentences = sentences_of(authored);
  auto section = sections.begin();
  auto sentence = sentences.begin();
  std::string says;
  std::string formerly;
  claims.reserve(places.size());
  for (const Place& place : places) {
    const auto end_of = [&](const Section& each) {
      return static_cast<std::size_t>(each.text.data() - authored.data()) + each.text.size();
    };
    while (section != sections.end() && end_of(*section) <= place.begin) ++section;
    const bool is_inside =
        section != sections.end() && end_of(*section) - section->text.size() <= place.begin;
    while (sentence != sentences.end() && sentence->end <= place.begin) {
      ++sentence;
      says.clear();
    }
    const bool has_sentence = sentence != sentences.end();
    const Span span = has_sentence ? *sentence : Span{place.begin, place.end};
    if (says.empty()) {
      says = saying(span.of(authored));
      formerly = has_sentence ? said_formerly(authored, sentences, sentence) : "";
    }
    claims.push_back({place.citation, is_inside ? section->heading : "", place.begin, place.end, span.begin,
                      span.end, says, formerly});
  }
  return claims;
}

std::string sentence_of(std::string_view authored, const Claim& claim) {
  std::size_t begin = claim.sentence_begin;
  std::size_t end = claim.sentence_end;
  if (claim.begin - begin > kShownAround) begin = claim.begin - kShownAround;
  if (end - claim.end > kShownAround) end = claim.end + kShownAround;
  return utils::valid_utf8(on_one_line(authored.substr(begin, end - begin)));
}

std::string with_labels(std::string_view authored,
                        const std::vector<std::pair<const Claim*, std::string>>& labels) {
  std::string text;
  std::size_t copied = 0;
  for (const auto& [claim, label] : labels) {
    text.append(authored.substr(copied, claim->begin - copied)).append(label);
    copied = claim->end;
  }
  return text.append(authored.substr(copied));
}

// Of equal claims the first is kept: all were written of the same text, as one save looks at them together.
KnownClaims::KnownClaims(std::vector<KnownClaim> claims) : claims_(std::move(claims)) {
  for (std::size_t i = 0; i < claims_.size(); ++i)
    places_.emplace(std::make_pair(claims_[i].citation, claims_[i].says), i);
}

// A claim of an earlier format is that of any sentence.
const KnownClaim* KnownClaims::find(const Claim& claim) const {
  const KnownClaim* found = find(claim.citation, claim.says);
  if (found == nullptr && !claim.said_formerly.empty()) found = find(claim.citation, claim.said_formerly);
  return found != nullptr ? found : find(claim.citation, "");
}

const KnownClaim* KnownClaims::find(const Citation& citation, const std::string& says) const {
  const auto found = places_.find({citation, says});
  return found == places_.end() ? nullptr : &claims_[found->second];
}

std::vector<std::pair<Claim, const KnownClaim*>> known_in(std::string_view authored,
                                                          const KnownClaims& known) {
  std::vector<Citation> cited;
  cited.reserve(known.all().size());
  for (const KnownClaim& claim : known.all()) cited.push_back(claim.citation);
  std::vector<std::pair<Claim, const KnownClaim*>> found;
  for (Claim& claim : claims_in(authored, cited))
    if (const KnownClaim* remembered = known.find(claim)) found.emplace_back(std::move(claim), remembered);
  return found;
}

std::set<std::string> versions_of(const std::vector<KnownClaim>& claims) {
  std::set<std::string> versions;
  for (const KnownClaim& claim : claims)
    if (!claim.print.file.hash.empty()) versions.insert(claim.print.file.hash);
  return versions;
}

void put_fingerprint(Map& map, const Fingerprint& print) {
  put(map, "text", print.text);
  put(map, "bare", print.bare);
  put(map, "near", print.near);
  put(map, "symbol", print.symbol);
  if (print.twins > 1) map["twins"] = print.twins;
}

Fingerprint fingerprint_in(const Map& map) {
  const Map& twins = utils::member(map, "twins");
  return {.text = utils::string_member(map, "text"),
          .bare = utils::string_member(map, "bare"),
          .near = utils::string_member(map, "near"),
          .symbol = utils::string_member(map, "symbol"),
          .twins = twins.is_number_integer() ? twins.get<std::int64_t>() : 1,
          .file = {}};
}

Map claim_map(const KnownClaim& claim) {
  Map map{{"first", claim.citation.first}, {"last", claim.citation.last}};
  put(map, "in", claim.heading);
  put(map, "says", claim.says);
  put_fingerprint(map, claim.print);
  put(map, "file", claim.print.file.hash);
  put(map, "blob", claim.print.file.blob);
  put(map, "commit", claim.print.file.commit);
  return map;
}

KnownClaim claim_of_map(const std::string& path, const Map& map) {
  KnownClaim claim{
      .citation = {path, map.at("first").get<std::int64_t>(), map.at("last").get<std::int64_t>()},
      .heading = utils::string_member(map, "in"),
      .says = utils::string_member(map, "says"),
      .print = fingerprint_in(map)};
  claim.print.file = {utils::string_member(map, "file"), utils::string_member(map, "blob"),
                      utils::string_member(map, "commit")};
  return claim;
}

std::vector<Map> stretches_of(const std::vector<KnownClaim>& claims) {
  const United united = unite(claims);
  std::vector<Map> stretches;
  stretches.reserve(united.stretches.size());
  for (const Citation& stretch : united.stretches) {
    stretches.push_back(citation_map(stretch));
    stretches.back()["claims"] = Map::array();
  }
  for (const KnownClaim& claim : claims)
    stretches[united.stretch_of.at(claim.citation)]["claims"].push_back(claim_map(claim));
  return stretches;
}

// A row of an earlier format has citations without claims, and at most a hash of their text.
std::vector<KnownClaim> claims_of(const std::vector<Map>& stretches) {
  std::vector<KnownClaim> claims;
  for (const Map& stretch : stretches) {
    const Citation whole = citation_of(stretch);
    if (!stretch.contains("claims")) {
      KnownClaim claim{.citation = whole, .heading = {}, .says = {}, .print = {}};
      claim.print.text = utils::string_member(stretch, "text_hash");
      claims.push_back(std::move(claim));
      continue;
    }
    for (const Map& map : stretch.at("claims")) claims.push_back(claim_of_map(whole.path, map));
  }
  return claims;
}

std::vector<KnownClaim> claims_of_row(const Map& row) {
  const Map citations = utils::json_member(row, "citations");
  return claims_of(citations.get_ref<const Map::array_t&>());
}

}  // namespace ossilar::workers::wiki
