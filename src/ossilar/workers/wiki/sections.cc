// Sections are byte ranges of the text, and replacing one joins three pieces: the text before, the new one,
// the text after. Rendering a changed tree of blocks would respell every other section.
//
// Joining is not enough by itself. A fence, a list or an HTML block that the new text leaves open takes in
// the heading that follows. So parted() asks the parser whether that heading is still one, and adds as little
// as makes it one. Matching "## " at line starts would find headings in code and miss Setext ones.
#include "ossilar/workers/wiki/sections.h"

#include <algorithm>
#include <vector>

#include "ossilar/utils/fold.h"
#include "ossilar/utils/markdown.h"
#include "ossilar/utils/text.h"
#include "ossilar/workers/wiki/finalize.h"

namespace ossilar::workers::wiki {
namespace {

using utils::Block;
using utils::BlockKind;

bool ends_section(const Block& block) { return block.kind == BlockKind::heading && block.level <= 2; }

// `heading` without the marks in front, if it is written with them. As in CommonMark, marks are up to six and
// end with a blank: "#define" is a heading's text.
std::string_view without_marks(std::string_view heading) {
  heading = utils::strip(heading);
  const std::size_t text = heading.find_first_not_of('#');
  if (text == std::string_view::npos) return "";
  const bool marked = text > 0 && text <= 6 && (heading[text] == ' ' || heading[text] == '\t');
  return marked ? utils::strip(heading.substr(text)) : heading;
}

std::optional<Section> find_section(std::string_view body, std::string_view heading) {
  const std::vector<Section> sections = sections_of(body);
  const auto number = section_number(sections, heading);
  return number ? std::optional(sections[*number]) : std::nullopt;
}

std::size_t end_without_feeds(std::string_view text) {
  const std::size_t last = text.find_last_not_of('\n');
  return last == std::string_view::npos ? 0 : last + 1;
}

// What `text` says below the section's heading, with the line feeds that separate it from the heading: those
// of `text` itself if it repeats the heading, else a blank line. The heading counts as repeated only at the
// start of `text`: further down it is a section that the text adds.
std::string below_heading(std::string_view text, const std::string& heading) {
  const std::vector<Section> sections = sections_of(text);
  if (!sections.empty() && same_heading(sections.front().heading, heading)) {
    const auto at = static_cast<std::size_t>(sections.front().text.data() - text.data());
    if (utils::strip(text.substr(0, at)).empty())
      return std::string(text.substr(at + sections.front().below));
  }
  return "\n" + std::string(text.substr(std::min(text.find_first_not_of('\n'), text.size())));
}

// Whether the parser still finds a heading of level 1 or 2 at `at`.
bool heading_stands_at(std::string_view text, std::size_t at) {
  const std::vector<Block> blocks = utils::top_level_blocks(text);
  return std::any_of(blocks.begin(), blocks.end(),
                     [&](const Block& block) { return block.begin == at && ends_section(block); });
}

// `before`, with what it takes at its end for `after`, which begins with a heading, to be read as it was.
// Tried in turn, the least change first: nothing, a blank line, a line that closes an open block. A list goes
// on over blank lines and takes in an indented heading; a comment ends it.
std::string parted(const std::string& before, std::string_view after) {
  if (after.empty()) return before;
  for (const std::string& parting :
       {std::string(), std::string("\n"), utils::closing_line(before) + "\n\n"}) {
    std::string candidate = before + parting;
    if (heading_stands_at(candidate + std::string(after), candidate.size())) return candidate;
  }
  return before + "\n<!-- -->\n\n";
}

}  // namespace

// A section begins as all that follows its heading, and is cut when the next heading comes. A level-1 heading
// ends one and begins none.
std::vector<Section> sections_of(std::string_view body) {
  std::vector<Section> sections;
  bool open = false;
  for (Block& block : utils::top_level_blocks(body)) {
    if (!ends_section(block)) continue;
    if (open) sections.back().text.remove_suffix(body.size() - block.begin);
    open = block.level == 2;
    if (open)
      sections.push_back({std::move(block.text), body.substr(block.begin), block.marks_end - block.begin});
  }
  return sections;
}

std::string heading_key(std::string_view heading) {
  return utils::fold(utils::plain_inline(without_marks(heading)));
}

bool same_heading(std::string_view a, std::string_view b) { return heading_key(a) == heading_key(b); }

// An exact match goes first, so that two headings which differ in case or markup alone can both be named.
std::optional<std::size_t> section_number(const std::vector<Section>& sections, std::string_view heading) {
  const std::string_view wanted = utils::strip(heading);
  auto found = std::find_if(sections.begin(), sections.end(),
                            [&](const Section& section) { return section.heading == wanted; });
  if (found == sections.end()) {
    const std::string key = heading_key(heading);
    found = std::find_if(sections.begin(), sections.end(),
                         [&](const Section& section) { return heading_key(section.heading) == key; });
  }
  if (found == sections.end()) return std::nullopt;
  return static_cast<std::size_t>(found - sections.begin());
}

std::optional<std::string> replace_section(std::string_view body, std::string_view heading,
                                           std::string_view text) {
  const auto section = find_section(body, heading);
  if (!section) return std::nullopt;
  const auto begin = static_cast<std::size_t>(section->text.data() - body.data());
  const std::string_view after = body.substr(begin + section->text.size());
  const std::string normalised = utils::normalise_line_ends(text);

  std::string replaced(body.substr(0, begin + section->below));
  if (replaced.back() != '\n') replaced += '\n';  // a heading that ends the body may lack its line feed
  replaced += below_heading(without_generated(normalised), section->heading);
  // The section keeps the line feeds at its end, and those of `text` go: so a section replaced by itself is
  // the same.
  replaced.resize(end_without_feeds(replaced));
  replaced += section->text.substr(end_without_feeds(section->text));
  return parted(replaced, after).append(after);
}

// The new section ends as it begins, with a blank line between it and its neighbours. What is before it keeps
// its bytes: only a line feed, or a line that closes an open block, comes behind them.
std::optional<std::string> add_section(std::string_view body, std::string_view heading, std::string_view text,
                                       const std::optional<std::string>& after) {
  std::size_t at = body.size();
  if (after) {
    const auto section = find_section(body, *after);
    if (!section) return std::nullopt;
    at = static_cast<std::size_t>(section->text.data() - body.data()) + section->text.size();
  }
  std::string before(body.substr(0, at));
  if (!before.empty() && before.back() != '\n') before += '\n';
  if (!before.empty() && !before.ends_with("\n\n")) before += '\n';
  const std::string name(without_marks(heading));
  const std::string normalised = utils::normalise_line_ends(text);
  std::string added = "## " + name + "\n" + below_heading(without_generated(normalised), name);
  added.resize(end_without_feeds(added));
  added += at < body.size() ? "\n\n" : "\n";
  std::string joined = parted(before, added) + added;
  return parted(joined, body.substr(at)).append(body.substr(at));
}

std::optional<std::string> remove_section(std::string_view body, std::string_view heading) {
  const auto section = find_section(body, heading);
  if (!section) return std::nullopt;
  const auto begin = static_cast<std::size_t>(section->text.data() - body.data());
  const std::string_view after = body.substr(begin + section->text.size());
  return parted(std::string(body.substr(0, begin)), after).append(after);
}

std::optional<std::string> section_text(std::string_view body, std::string_view heading) {
  const auto section = find_section(body, heading);
  return section ? std::optional<std::string>(section->text) : std::nullopt;
}

}  // namespace ossilar::workers::wiki
