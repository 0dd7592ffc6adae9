#include "ossilar/web/search_index.h"

#include <algorithm>
#include <vector>

#include "ossilar/utils/error.h"
#include "ossilar/utils/markdown.h"
#include "ossilar/utils/text.h"
#include "ossilar/web/address.h"
#include "ossilar/workers/wiki/finalize.h"
#include "ossilar/workers/wiki/link_text.h"

namespace ossilar::web {
namespace {

// Bytes of text in all, which a browser loads in a second.
constexpr std::size_t kMostText = std::size_t{8} * 1024 * 1024;
constexpr std::size_t kLeastOfSection = 160;

struct Passage {
  const workers::wiki::PageState* page;
  std::string section, text;
};

void add_passage(std::vector<Passage>& passages, const workers::wiki::PageState& page,
                 const std::string& section, std::string_view markdown) {
  const std::string prose = utils::prose_text(markdown);
  std::string text;
  for (const std::string_view word : utils::split_words(prose)) {
    if (!text.empty()) text += ' ';
    text += word;
  }
  if (!text.empty() || section.empty()) passages.push_back({&page, section, std::move(text)});
}

void add_page(std::vector<Passage>& passages, const Site& site, const workers::wiki::PageState& page) {
  const std::string stored = page_text(site.wiki().paths(), page.page_id);
  const std::string text = workers::wiki::split_authored(stored, "").text();
  const std::size_t first = passages.size();
  std::size_t begin = 0;
  std::string section;
  for (const utils::Block& block : utils::top_level_blocks(text)) {
    if (block.kind != utils::BlockKind::heading || block.level != 2) continue;
    add_passage(passages, page, section, std::string_view(text).substr(begin, block.begin - begin));
    section = block.text;
    begin = block.marks_end;
  }
  add_passage(passages, page, section, std::string_view(text).substr(begin));
  // A former title leads to the page too.
  for (const std::string& title : workers::wiki::former_titles(site.rows().find(page.page_id)))
    passages[first].text += " (formerly: " + title + ")";
}

}  // namespace

std::string search_index_script(const Site& site) {
  std::vector<Passage> passages;
  std::size_t size = 0;
  for (const workers::wiki::PageState& page : site.pages()) {
    if (!Site::is_written(page)) continue;
    try {
      add_page(passages, site, page);
    } catch (const utils::Error&) {
      continue;  // its own page says why it cannot be read
    }
  }
  for (const Passage& passage : passages) size += passage.text.size();
  const std::size_t most = size <= kMostText ? size : std::max(kMostText / passages.size(), kLeastOfSection);
  std::string script = "window.ossilarIndex = [\n";
  for (const Passage& passage : passages) {
    const Map entry{page_address(passage.page->page_id), passage.page->title, passage.section,
                    std::string(utils::utf8_prefix(passage.text, most))};
    script += utils::json_text(entry) + ",\n";
  }
  return script + "];\n";
}

}  // namespace ossilar::web
