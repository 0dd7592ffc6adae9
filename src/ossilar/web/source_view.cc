// Three layers of the same line height lie over each other: the numbers, the text, and behind the text a
// block for each cited range, which shows when the address names it. So a range is marked and scrolled to by
// the browser alone, and the text stays one piece that can be copied and coloured.
#include "ossilar/web/source_view.h"

#include <map>
#include <set>
#include <utility>

#include "ossilar/source/indexer.h"
#include "ossilar/utils/text.h"
#include "ossilar/web/address.h"
#include "ossilar/web/html.h"

namespace ossilar::web {
namespace {

using ctemplate::TemplateDictionary;
using workers::wiki::Citation;

// Bytes. A larger one would take a browser seconds to lay out; its beginning is shown.
constexpr std::size_t kLongestShown = std::size_t{2} * 1024 * 1024;

// Lines of all marked ranges together: each takes a byte per line, and pages may cite overlapping ones.
constexpr std::int64_t kMostMarkedLines = 200'000;

// By the names that the highlighter in the browser knows.
std::string language_class(const std::string& language) {
  static const std::map<std::string, std::string> kNames{{"C++", "cpp"},
                                                         {"C", "c"},
                                                         {"C#", "csharp"},
                                                         {"Shell", "bash"},
                                                         {"Bash", "bash"},
                                                         {"CMake", "plaintext"},
                                                         {"HTML", "xml"},
                                                         {"XML", "xml"},
                                                         {"Objective-C", "objectivec"},
                                                         {"TOML", "ini"},
                                                         {"INI", "ini"},
                                                         {"Makefile", "makefile"},
                                                         {"JavaScript", "javascript"},
                                                         {"TypeScript", "typescript"}};
  const auto known = kNames.find(language);
  if (known != kNames.end()) return known->second;
  std::string name;
  for (const char c : utils::lower_case(language))
    if ((c >= 'a' && c <= 'z') || (c >= '0' && c <= '9')) name += c;
  return name.empty() ? "plaintext" : name;
}

std::string numbers_html(std::size_t lines) {
  std::string html;
  html.reserve(lines * 40);
  for (std::size_t i = 1; i <= lines; ++i) {
    const std::string number = std::to_string(i);
    html += "<a id=\"L";
    html += number;
    html += "\" href=\"#L";
    html += number;
    html += "\">";
    html += number;
    html += "</a>\n";
  }
  return html;
}

// The ranges of lines that are marked when the address names them. A single line is marked by its number,
// which has its name already.
class Ranges {
 public:
  explicit Ranges(std::int64_t lines) : lines_(lines) {}

  bool has(const Citation& citation) const { return citation.first >= 1 && citation.last <= lines_; }

  void add(const Citation& citation) {
    const std::int64_t height = citation.last - citation.first + 1;
    if (!has(citation) || height < 2 || marked_ + height > kMostMarkedLines) return;
    if (ranges_.emplace(citation.first, citation.last).second) marked_ += height;
  }

  // In their order, each at its first line and as high as its lines.
  std::string html() const {
    std::string html = "\n";  // HTML drops a line feed that comes first
    std::int64_t line = 1;
    for (const auto& [first, last] : ranges_) {
      html.append(static_cast<std::size_t>(first - line), '\n');
      line = first;
      html += "<span class=\"range\" id=\"" + lines_fragment(first, last) + "\">" +
              std::string(static_cast<std::size_t>(last - first + 1), '\n') + "</span>";
    }
    return html;
  }

 private:
  const std::int64_t lines_;
  std::int64_t marked_ = 0;
  std::set<std::pair<std::int64_t, std::int64_t>> ranges_;
};

// Pages that cite the file, with the lines of each.
void add_citing(TemplateDictionary& values, const Asked& asked, const std::string& path, Ranges& ranges) {
  const auto cited = asked.site.cited().find(path);
  if (cited == asked.site.cited().end()) {
    values.ShowSection("UNCITED");
    return;
  }
  TemplateDictionary* list = values.AddSectionDictionary("CITED");
  for (const CitedLines& citing : cited->second) {
    const workers::wiki::PageState* page = asked.site.page(citing.page_id);
    if (page == nullptr) continue;
    TemplateDictionary* item = list->AddSectionDictionary("PAGE");
    item->SetValue("URL", link_to(asked, page_address(page->page_id)));
    item->SetValue("TITLE", page->title);
    set_state(*item, page->condition);
    if (page->condition != workers::wiki::PageCondition::ok) item->ShowSection("STATE_MARK");
    for (const auto& [citation, heading] : citing.places) {
      const bool is_there = ranges.has(citation);
      TemplateDictionary* place =
          item->AddSectionDictionary("PLACE")->AddSectionDictionary(is_there ? "LINKED" : "PLAIN");
      place->SetValue("LINES", lines_fragment(citation.first, citation.last));
      if (!is_there) continue;
      place->SetValue("URL", "#" + lines_fragment(citation.first, citation.last));
      ranges.add(citation);
    }
    // Links from sentences in doubt lead to where the text is now.
    for (const workers::wiki::Doubt& doubt : page->doubts)
      if (doubt.now && doubt.now->path == path) ranges.add(*doubt.now);
  }
}

}  // namespace

std::optional<std::string> source_document(const Asked& asked, const std::string& path) {
  const source::SourceFile* file = asked.site.planned().index->find(path);
  if (file == nullptr || file->kind != source::FileKind::text) return std::nullopt;
  const auto read = source::read_source(asked.site.wiki().paths().root, path);
  if (!read) return std::nullopt;
  const std::string normalised = utils::normalise_line_ends(*read);
  const std::string text(utils::utf8_prefix(normalised, kLongestShown));
  const std::size_t lines = utils::count_lines(text);

  TemplateDictionary values("source");
  values.SetValue("PATH", path);
  values.SetValue("HOME_URL", link_to(asked, std::string(kHome)));
  values.SetValue("LANGUAGE", file->language);
  values.SetIntValue("LINES", static_cast<long>(utils::count_lines(normalised)));
  if (text.size() < normalised.size()) values.ShowSection("CUT");
  Ranges ranges(static_cast<std::int64_t>(lines));
  add_citing(values, asked, path, ranges);
  values.SetValue("NUMBERS", numbers_html(lines));
  values.SetValue("RANGES", ranges.html());
  values.SetValue("CLASS", "language-" + language_class(file->language));
  values.SetValue("TEXT", escaped(text));
  return framed(
      asked, {.title = path, .content = expanded("source.html", values), .kind = "source", .has_code = true});
}

}  // namespace ossilar::web
