// What could be a citation or a title is collected with a scan for brackets, and CommonMark then says which
// of it is a link.
//
// The plain way is a pattern over the text. It also counts citations in code blocks, comments and attributes,
// and escaped brackets, so a page would count as grounded by citations that no reader sees as links. Instead,
// each candidate gets a link definition with a target that no author can write, the text is parsed once with
// all of them, and the links that have such targets are the ones meant.
//
// Work is linear in the size of the text: a scan, one look at the index for each different label, and at most
// two runs of the parser.
#include "ossilar/workers/wiki/citations.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <iterator>
#include <limits>
#include <map>
#include <set>

#include "ossilar/utils/fold.h"
#include "ossilar/utils/hash.h"
#include "ossilar/utils/markdown.h"
#include "ossilar/utils/text.h"
#include "ossilar/workers/wiki/loose_citation.h"
#include "ossilar/workers/wiki/near_paths.h"

namespace ossilar::workers::wiki {
namespace {

constexpr std::size_t kLongestLabel = 999;  // CommonMark: a link label has at most 999 characters
// How many labels that are the same to CommonMark are told apart. Two paths may differ in case alone; a text
// with more spellings of one label plays with case, and the limit keeps the work on it linear.
constexpr std::size_t kMostTwins = 4;

// Takes a decimal line number from the front of `text`. One that is out of range becomes the largest number:
// it has the form of a citation, and is then refused because the file has fewer lines. No sign is taken,
// though from_chars() would take a '-'.
std::optional<std::int64_t> take_number(std::string_view& text) {
  std::int64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (end == text.data() || text.front() == '-') return std::nullopt;
  if (error == std::errc::result_out_of_range) number = std::numeric_limits<std::int64_t>::max();
  text.remove_prefix(static_cast<std::size_t>(end - text.data()));
  return number;
}

bool take(std::string_view& text, char expected) {
  if (text.empty() || text.front() != expected) return false;
  text.remove_prefix(1);
  return true;
}

std::string label_of(const std::string& path, std::int64_t first, std::int64_t last) {
  std::string label = path + ":L" + std::to_string(first);
  if (last != first) label += "-L" + std::to_string(last);
  return label;
}

std::string in_brackets(const std::string& path, std::int64_t first, std::int64_t last) {
  return "[" + label_of(path, first, last) + "]";
}

bool is_valid(const Citation& citation, const source::SourceIndex& index) {
  const source::SourceFile* file = index.find(citation.path);
  return file != nullptr && file->kind == source::FileKind::text && citation.first >= 1 &&
         citation.first <= citation.last && citation.last <= file->lines;
}

// What one candidate label would mean if CommonMark makes it a link.
struct Meaning {
  std::optional<Citation> citation;  // of the proper form, valid or not
  bool malformed = false;
  bool unknown = false;  // a title that no page has
  std::string page_id;
  bool operator==(const Meaning&) const = default;
};

// Whether a bracket is more likely a page's title than anything else that stands in brackets, such as `[x]`,
// `[1]` or
// `[a, b]`: it begins with a capital, has three letters, and nothing but words.
bool looks_like_title(std::string_view label) {
  const auto is_letter = [](char c) { return std::isalpha(static_cast<unsigned char>(c)) != 0; };
  const auto is_of_words = [&](char c) {
    return is_letter(c) || std::isdigit(static_cast<unsigned char>(c)) != 0 ||
           std::string_view(" -_/&'").find(c) != std::string_view::npos;
  };
  return std::isupper(static_cast<unsigned char>(label.empty() ? ' ' : label.front())) != 0 &&
         std::count_if(label.begin(), label.end(), is_letter) >= 3 &&
         std::all_of(label.begin(), label.end(), is_of_words);
}

// A citation's form comes first, so that no title can hide one. Another form counts only with a path that is
// indexed: "note: 10" is prose.
std::optional<Meaning> meaning_of(std::string_view label, const source::SourceIndex& index,
                                  const PageByTitle& page_by_title) {
  if (auto citation = parse_citation(label)) return Meaning{.citation = std::move(citation), .page_id = {}};
  if (auto page_id = page_by_title(label)) return Meaning{.citation = {}, .page_id = *std::move(page_id)};
  if (is_loose_citation(std::string(label), index))
    return Meaning{.citation = {}, .malformed = true, .page_id = {}};
  if (looks_like_title(label)) return Meaning{.citation = {}, .unknown = true, .page_id = {}};
  return std::nullopt;
}

struct Candidate {
  std::string label;  // as written, on one line
  Meaning meaning;
};

// Candidates by fold_label(): labels that are the same to CommonMark share a key. It links them all by one
// definition, so the link's text tells which of them stands there.
using Candidates = std::map<std::string, std::vector<Candidate>>;

// A label that is written often is looked up once; without that, a text of the same bracket over and over
// would cost a look at the index for each.
Candidates find_candidates(std::string_view authored, const source::SourceIndex& index,
                           const PageByTitle& page_by_title) {
  Candidates candidates;
  std::set<std::string> seen;
  for (const std::string_view written : bracketed(authored)) {
    std::string label = utils::collapse_label(written);
    if (!seen.insert(label).second) continue;
    auto meaning = meaning_of(label, index, page_by_title);
    if (!meaning) continue;
    auto& twins = candidates[utils::fold_label(label)];
    if (twins.size() < kMostTwins) twins.push_back({std::move(label), *std::move(meaning)});
  }
  return candidates;
}

bool is_link(const Meaning& meaning, const source::SourceIndex& index) {
  return !meaning.malformed && !meaning.unknown && (!meaning.citation || is_valid(*meaning.citation, index));
}

// The candidates that the page will have link definitions for: what links somewhere, and only where all
// labels of the key mean the same. The same rule as that of page_links().
Candidates defined_candidates(const Candidates& all, const source::SourceIndex& index) {
  Candidates defined;
  for (const auto& [key, twins] : all) {
    std::vector<Candidate> links;
    std::copy_if(twins.begin(), twins.end(), std::back_inserter(links),
                 [&](const Candidate& twin) { return is_link(twin.meaning, index); });
    const bool one_meaning = std::all_of(links.begin(), links.end(), [&](const Candidate& twin) {
      return twin.meaning == links.front().meaning;
    });
    if (one_meaning && !links.empty()) defined.emplace(key, std::move(links));
  }
  return defined;
}

bool has(const Candidates& candidates, const std::string& label) {
  const auto twins = candidates.find(utils::fold_label(label));
  return twins != candidates.end() && std::any_of(twins->second.begin(), twins->second.end(),
                                                  [&](const Candidate& twin) { return twin.label == label; });
}

std::size_t count_labels(const Candidates& candidates) {
  std::size_t count = 0;
  for (const auto& [key, twins] : candidates) count += twins.size();
  return count;
}

// A link with a text of its own, [text][label], does not tell which of the labels it has; the first stands
// for it.
const Candidate& candidate_for(const std::vector<Candidate>& twins, const std::string& link_text) {
  if (twins.size() == 1) return twins.front();
  const auto found = std::find_if(twins.begin(), twins.end(), [&](const Candidate& twin) {
    return utils::plain_inline(twin.label) == link_text;
  });
  return found == twins.end() ? twins.front() : *found;
}

// The candidates that CommonMark reads as links, in the order of the text, each label once.
std::vector<Candidate> linked_candidates(std::string_view authored, const Candidates& candidates) {
  // An author cannot write one of these targets: the text would have to hold its own hash.
  const std::string target = "ossilar-" + utils::sha256_hex(authored) + "-";
  // Definitions at the end of the text: the author's own come first and win, as they do on the page. A block
  // that is left open is closed, or it would swallow them.
  std::string probe(authored);
  probe += "\n" + utils::closing_line(authored) + "\n\n";
  std::vector<const std::vector<Candidate>*> by_number;
  for (const auto& [key, twins] : candidates) {
    for (const Candidate& twin : twins) {
      probe += "[" + twin.label + "]: " + target + std::to_string(by_number.size()) + "\n";
    }
    by_number.push_back(&twins);  // the twins share the number, as the first of their definitions wins
  }
  std::vector<Candidate> linked;
  std::set<std::string> seen;
  for (const utils::Link& link : utils::links(probe)) {
    if (link.url.compare(0, target.size(), target) != 0) continue;
    const std::size_t number = std::stoul(link.url.substr(target.size()));
    const Candidate& candidate = candidate_for(*by_number[number], link.text);
    if (seen.insert(candidate.label).second) linked.push_back(candidate);
  }
  return linked;
}

// The candidates that are links in the page, and those that look like citations but get no link, in the order
// of the text.
//
// One reading with definitions for all candidates is not enough. In [a][b], `a` is the text of a link to `b`
// only where `b` is defined; on the page an invalid `b` is not, and `a` is a link by itself. So the links are
// those of a reading with the page's own definitions, and the second reading adds what has none.
std::vector<Candidate> meant_candidates(std::string_view authored, const Candidates& candidates,
                                        const source::SourceIndex& index) {
  const Candidates defined = defined_candidates(candidates, index);
  std::vector<Candidate> links = linked_candidates(authored, defined);
  if (count_labels(defined) == count_labels(candidates)) return links;
  std::vector<Candidate> meant;
  auto link = links.begin();
  for (Candidate& candidate : linked_candidates(authored, candidates)) {
    if (!has(defined, candidate.label)) {
      meant.push_back(std::move(candidate));
    } else if (link != links.end()) {
      meant.push_back(std::move(*link++));
    }
  }
  std::move(link, links.end(), std::back_inserter(meant));
  return meant;
}

// Everything but letters, digits and a few marks that mean nothing in a link target: blanks, brackets and '#'
// in a path would end the target or begin its anchor.
std::string percent_encoded(const std::string& path) {
  static constexpr std::string_view kPlain = "-._~/+@=,";
  static constexpr char kDigits[] = "0123456789ABCDEF";
  std::string out;
  for (const char c : path) {
    const auto byte = static_cast<unsigned char>(c);
    const bool alphanumeric = (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
    if (alphanumeric || kPlain.find(c) != std::string_view::npos) {
      out += c;
    } else {
      out += {'%', kDigits[byte >> 4U], kDigits[byte & 0xFU]};
    }
  }
  return out;
}

std::string repeated(std::string_view text, std::size_t times) {
  std::string out;
  while (times-- > 0) out += text;
  return out;
}

std::size_t depth_of(const std::string& path) {
  return static_cast<std::size_t>(std::count(path.begin(), path.end(), '/'));
}

// The form in which forges address lines of a file.
std::string lines_anchor(const Citation& citation) {
  std::string anchor = "#L" + std::to_string(citation.first);
  if (citation.last != citation.first) anchor += "-L" + std::to_string(citation.last);
  return anchor;
}

std::string quoted_label(const std::string& label) { return "[" + label + "]"; }

// `large` names the limit that source::kLargestFile sets.
std::string unusable_reason(const source::SourceFile& file) {
  switch (file.kind) {
    case source::FileKind::binary:
      return "the file is not text";
    case source::FileKind::large:
      return "the file is over 10 MiB and not read";
    case source::FileKind::symlink:
      return "the file is a symbolic link; cite the file it leads to";
    case source::FileKind::submodule:
      return "this is a submodule, whose files are not indexed";
    default:
      return "the file cannot be read";
  }
}

}  // namespace

std::optional<Citation> parse_citation(std::string_view label) {
  const std::size_t mark = label.rfind(":L");
  if (mark == std::string_view::npos || mark == 0) return std::nullopt;
  Citation citation;
  citation.path = std::string(label.substr(0, mark));
  std::string_view lines = label.substr(mark + 2);
  // The last ":L" is searched because a path may hold one. What follows the first number can only be "-L" and
  // another number.
  const auto first = take_number(lines);
  if (!first) return std::nullopt;
  citation.first = citation.last = *first;
  if (lines.empty()) return citation;
  if (!take(lines, '-') || !take(lines, 'L')) return std::nullopt;
  const auto last = take_number(lines);
  if (!last || !lines.empty()) return std::nullopt;
  citation.last = *last;
  return citation;
}

Map citation_map(const Citation& citation) {
  return {{"path", citation.path}, {"first", citation.first}, {"last", citation.last}};
}

Citation citation_of(const Map& citation) {
  return {.path = utils::string_member(citation, "path"),
          .first = citation.at("first").get<std::int64_t>(),
          .last = citation.at("last").get<std::int64_t>()};
}

std::string citation_label(const Citation& citation) {
  return label_of(citation.path, citation.first, citation.last);
}

// One pass and no stack: of nested brackets only the innermost can be a label, and a text of nothing but '['
// stays linear.
std::vector<std::string_view> bracketed(std::string_view text) {
  std::vector<std::string_view> found;
  std::size_t open = std::string_view::npos;
  for (std::size_t at = 0; at < text.size(); ++at) {
    if (text[at] == '\\') {
      ++at;
    } else if (text[at] == '[') {
      open = at + 1;
    } else if (text[at] == ']' && open != std::string_view::npos) {
      if (at > open && at - open <= kLongestLabel) found.push_back(text.substr(open, at - open));
      open = std::string_view::npos;
    }
  }
  return found;
}

std::string without_citations(std::string_view text) {
  std::string out;
  std::size_t done = 0;
  for (const std::string_view label : bracketed(text)) {
    if (!parse_citation(utils::collapse_label(label))) continue;
    const auto begin = static_cast<std::size_t>(label.data() - text.data());
    out.append(text.substr(done, begin - 1 - done));
    out.erase(out.find_last_not_of(' ') + 1);
    done = begin + label.size() + 1;
  }
  return out.append(text.substr(done));
}

Brackets read_brackets(std::string_view authored, const source::SourceIndex& index,
                       const PageByTitle& page_by_title) {
  Brackets brackets;
  const Candidates candidates = find_candidates(authored, index, page_by_title);
  if (candidates.empty()) return brackets;  // spares the parser where nothing could become a link
  const std::vector<Candidate> linked = meant_candidates(authored, candidates, index);
  std::set<Citation> known;
  for (const Candidate& candidate : linked) {
    const Meaning& meaning = candidate.meaning;
    if (meaning.malformed) {
      brackets.malformed.push_back(candidate.label);
    } else if (meaning.unknown) {
      brackets.unknown.push_back(candidate.label);
    } else if (!meaning.citation) {
      brackets.page_labels.emplace_back(candidate.label, meaning.page_id);
    } else if (is_valid(*meaning.citation, index)) {
      brackets.citation_labels.emplace_back(candidate.label, *meaning.citation);
      if (known.insert(*meaning.citation).second) brackets.valid.push_back(*meaning.citation);
    } else {
      brackets.invalid.push_back(candidate.label);
    }
  }
  return brackets;
}

std::string invalid_citation_warning(const std::string& label, const source::SourceIndex& index) {
  const std::string start = "citation " + quoted_label(label) + ": ";
  const Citation citation = parse_citation(label).value_or(Citation{});
  const source::SourceFile* file = index.find(citation.path);
  if (file == nullptr) {
    const std::string nearest = nearest_path(citation.path, index);
    if (nearest.empty()) return start + "no indexed file has this path";
    // Its lines are suggested only where they exist: a part of them would be another text.
    const bool has_them =
        citation.first >= 1 && citation.first <= citation.last && citation.last <= index.find(nearest)->lines;
    return start + "no indexed file has this path; did you mean " +
           (has_them ? in_brackets(nearest, citation.first, citation.last) : nearest) + "?";
  }
  if (file->kind != source::FileKind::text) return start + unusable_reason(*file);
  if (file->lines == 0) return start + "the file is empty";
  if (citation.first > citation.last && citation.last >= 1) {
    return start + "the last line comes before the first" +
           (citation.first <= file->lines
                ? "; did you mean " + in_brackets(citation.path, citation.last, citation.first) + "?"
                : "");
  }
  return start + "the file has lines 1 to " + std::to_string(file->lines);
}

std::string malformed_citation_warning(const std::string& label) {
  const Citation loose = parse_loose(label).value_or(Citation{});
  return "citation " + quoted_label(label) + ": not of the form that counts; write " +
         in_brackets(loose.path, loose.first, loose.last);
}

PageLinks page_links(const Brackets& brackets, const std::string& page_id, const std::string& wiki_dir) {
  PageLinks links;
  for (const Citation& citation : brackets.valid) {
    links.citations.push_back(citation_map(citation));
  }
  // From the page's file up to pages/, from there past pages/ and every part of wiki_dir.
  const std::string to_pages = repeated("../", depth_of(page_id));
  const std::string to_root = to_pages + "../" + repeated("../", depth_of(wiki_dir) + 1);
  // By fold_label(), the targets that labels of that key ask for.
  std::map<std::string, std::set<std::string>> wanted;
  std::vector<std::pair<std::string, std::string>> targets;
  const auto want = [&](const std::string& label, std::string target) {
    wanted[utils::fold_label(label)].insert(target);
    targets.emplace_back(label, std::move(target));
  };
  for (const auto& [label, citation] : brackets.citation_labels) {
    want(label, to_root + percent_encoded(citation.path) + lines_anchor(citation));
  }
  for (const auto& [label, target_id] : brackets.page_labels) {
    want(label, to_pages + percent_encoded(target_id) + ".md");
  }
  for (auto& target : targets) {
    auto& alternatives = wanted[utils::fold_label(target.first)];
    if (alternatives.size() != 1) continue;
    alternatives.insert("");  // one definition serves every spelling: a second element bars the next one
    links.targets.push_back(std::move(target));
  }
  return links;
}

}  // namespace ossilar::workers::wiki
