// The rules are those of a draft (orchestrator.cc, _finalize): a text that is judged otherwise here than by
// the save would send its author in circles.
#include "ossilar/workers/wiki/asking/text_check.h"

#include <map>
#include <optional>

#include "ossilar/utils/text.h"
#include "ossilar/workers/wiki/citing/lines.h"
#include "ossilar/workers/wiki/host/author_warnings.h"
#include "ossilar/workers/wiki/host/planned_wiki.h"

namespace ossilar::workers::wiki {
namespace {

constexpr std::size_t kLongestQuote = 100;  // bytes: one line of a terminal

// The texts of cited files, each read once.
class Quotes {
 public:
  explicit Quotes(const Wiki& wiki) : wiki_(wiki) {}

  std::string first_line(const Citation& citation) {
    const auto& text = text_of(citation.path);
    if (!text || !text->has({citation.first, citation.last})) return "";
    for (std::int64_t number = citation.first; number <= citation.last; ++number) {
      const std::string_view line = utils::strip(text->line(number));
      if (letters_in(line) > 0) return std::string(utils::utf8_prefix(line, kLongestQuote));
    }
    return "";
  }

 private:
  const std::optional<LineText>& text_of(const std::string& path) {
    auto [text, is_new] = texts_.try_emplace(path);
    if (!is_new) return text->second;
    if (const auto content = source::read_source(wiki_.paths().root, path)) text->second.emplace(*content);
    return text->second;
  }

  const Wiki& wiki_;
  std::map<std::string, std::optional<LineText>> texts_;
};

}  // namespace

TextCheck check_text(Wiki& wiki, const std::string& page_id, const std::string& content) {
  const DraftBasis basis = wiki.draft_basis();
  const Brackets brackets =
      brackets_of(content, *basis.planned, basis.titles, basis.planned->plans.find(page_id));
  Quotes quotes(wiki);
  TextCheck check;
  std::vector<std::string> empty;
  for (const auto& [label, citation] : brackets.citation_labels) {
    std::string line = quotes.first_line(citation);
    if (line.empty()) empty.push_back(label);
    check.cited.push_back({label, std::move(line)});
  }
  check.faults = bracket_warnings(brackets, empty, *basis.planned);
  return check;
}

}  // namespace ossilar::workers::wiki
