// The text is put together from parts, each with a share of the budget. Writing all of it and cutting the end
// is the plain way; then a page with thousands of files would be a list of names without a line of code.
//
// Everything has a fixed order. The text is a part of the page's grounding hash, so the same sources have to
// give the same bytes.
#include "ossilar/workers/wiki/grounding/grounding.h"

#include <algorithm>
#include <tuple>
#include <utility>

#include "ossilar/utils/text.h"
#include "ossilar/workers/wiki/grounding/excerpts.h"
#include "ossilar/workers/wiki/plan/file_roles.h"
#include "ossilar/workers/wiki/plan/plan_names.h"

namespace ossilar::workers::wiki {
namespace {

using source::SourceFile;
using source::SourceIndex;

// What each part may take of the budget at most; what a part leaves goes to the excerpts, which are what an
// author works from. The six parts before them (kPurposeShare is used twice) take seven tenths at worst.
constexpr std::size_t kPurposeShare = kGroundingBudget / 16;  // description, sections, how to cite
constexpr std::size_t kSteeringShare =
    kGroundingBudget / 5;  // the largest share: a person wrote it for this page, so it is cut only as a guard
constexpr std::size_t kPagesShare = kGroundingBudget / 8;  // some 100 pages: enough to link to
constexpr std::size_t kFilesShare = kGroundingBudget / 8;  // some 100 files
constexpr std::size_t kSymbolsShare = kGroundingBudget / 8;
// Gives each symbol some 85 bytes of kSymbolsShare. The row keeps them, too.
constexpr std::size_t kMostSymbols = 60;
constexpr std::size_t kLongestAbstract = 160;  // bytes: a sentence
// A page without sources of its own is grounded on this many files of the pages around it. They become its
// sources, so with more of them it would become stale more often.
constexpr std::size_t kBorrowedFiles = 40;

// A part of the text: lines up to a share of the budget, then how many more there were. After the first line
// that does not fit none is taken: what is shown is the beginning of a list.
class Part {
 public:
  Part(const std::string& heading, std::size_t share) : share_(share) {
    if (!heading.empty()) text_ = "## " + heading + "\n\n";
  }

  void line(const std::string& line, std::string_view noun = "") {
    if (left_out_ == 0 && text_.size() + line.size() + 1 + kLastLine <= share_) {
      text_ += line + "\n";
    } else {
      ++left_out_;
      noun_ = noun;
    }
  }

  std::string text() const {
    const std::string rest =
        left_out_ > 0 ? "and " + counted(static_cast<std::int64_t>(left_out_), "more " + noun_) + "\n" : "";
    return text_ + rest + "\n";
  }

 private:
  static constexpr std::size_t kLastLine = 64;  // kept free for "and 12,345 more files"

  std::size_t share_;
  std::string text_;
  std::string noun_;
  std::size_t left_out_ = 0;
};

std::string quoted(const std::string& text) { return "`" + one_line(text) + "`"; }

// A bar would begin the next cell of a table, even inside code.
std::string cell(const std::string& text) {
  std::string out;
  for (const char c : one_line(text)) {
    if (c == '|') out += '\\';
    out += c;
  }
  return out;
}

// The description gets half of the share, so that the page's type always fits below it.
std::string purpose_part(const PagePlan& plan) {
  const PageType& type = plan_type(plan);
  Part part("", kPurposeShare);
  part.line("# Grounding for " + one_line(plan.title) + " (" + plan.page_id + ")\n");
  if (!plan.description.empty())
    part.line(std::string(utils::utf8_prefix(plan.description, kPurposeShare / 2)) + "\n", "line");
  part.line("Page type: " + type.name + ". " + type.purpose, "line");
  return part.text();
}

std::string rules_part(const PagePlan& plan, const SourceFile* example) {
  const PageType& type = plan_type(plan);
  Part part("What the page must have", kPurposeShare);
  for (const std::string& section : type.required_sections) part.line("- the section `## " + section + "`");
  part.line("- " + std::to_string(type.least_words) + " to " + std::to_string(type.most_words) +
            " words of prose");
  part.line("- citations of the source lines behind each statement, outside code");
  // A real path and real lines: an agent that copies the example has a citation that is valid. Twenty lines
  // at most, to show that a citation names the lines that it rests on, and not a file.
  if (example != nullptr) {
    const std::int64_t last = std::min<std::int64_t>(example->lines, 20);
    part.line("\nA citation is a path with a range of lines, for example [" + one_line(example->path) +
              ":L1-L" + std::to_string(std::max<std::int64_t>(last, 1)) +
              "]. Link another page by its title in brackets.");
  }
  return part.text();
}

std::string steering_part(const std::string& steering) {
  if (utils::strip(steering).empty()) return "";
  const std::string_view kept = utils::utf8_prefix(steering, kSteeringShare);
  return "## Steering\n\n" + std::string(kept) + (kept.size() < steering.size() ? "\n\n(cut)" : "") + "\n\n";
}

void list_pages(Part& part, std::string_view what, const std::vector<std::string>& ids, const Plans& plans,
                const Abstracts& abstracts) {
  for (const std::string& id : ids) {
    const PagePlan* page = plans.find(id);
    if (page == nullptr) continue;
    const auto known = abstracts.find(id);
    const std::string abstract = known == abstracts.end() ? "" : one_line(known->second);
    const std::string_view kept = utils::utf8_prefix(abstract, kLongestAbstract);
    part.line(
        "- " + std::string(what) + ": " + one_line(page->title) + " (" + id + ")" +
            (kept.empty() ? "" : ": " + std::string(kept) + (kept.size() < abstract.size() ? "..." : "")),
        "page");
  }
}

// The pages around this one, by the titles that link to them. A synthesis page gets all modules, as far as
// they fit.
std::string pages_part(const PagePlan& plan, const Plans& plans, const Abstracts& abstracts) {
  Part part("Pages around it", kPagesShare);
  if (!plan.parent.empty()) list_pages(part, "above", {plan.parent}, plans, abstracts);
  list_pages(part, "below", plan.children, plans, abstracts);
  list_pages(part, "related", plan.related_pages, plans, abstracts);
  if (!plan_type(plan).unit) {
    std::vector<std::pair<int, std::size_t>> units;  // the top modules first, for the list may be cut
    for (std::size_t i = 0; i < plans.size(); ++i) {
      if (plan_type(plans[i]).unit) units.emplace_back(plans[i].level, i);
    }
    std::sort(units.begin(), units.end());
    std::vector<std::string> ids;
    ids.reserve(units.size());
    for (const auto& [level, i] : units) ids.push_back(plans[i].page_id);
    list_pages(part, "module", ids, plans, abstracts);
  }
  return part.text();
}

std::string files_part(const std::vector<std::string>& paths, const SourceIndex& index) {
  Part part("Source files", kFilesShare);
  part.line("| file | language | lines |\n| --- | --- | --- |", "file");
  for (const std::string& path : paths) {
    const SourceFile* file = index.find(path);
    if (file == nullptr) continue;
    part.line("| " + cell(path) + " | " + file->language + " | " + std::to_string(file->lines) + " |",
              "file");
  }
  return part.text();
}

// Takes a symbol of each file in turn: in file order, the first large file would fill the list. More files
// than kMostSymbols need not be asked, as the first turn fills it.
std::vector<Map> page_symbols(const std::vector<const SourceFile*>& files) {
  std::vector<std::vector<source::Symbol>> by_file;
  for (const SourceFile* file : files) {
    by_file.push_back(telling_symbols(*file));
    if (by_file.size() == kMostSymbols) break;
  }
  std::vector<Map> out;
  bool more = true;
  for (std::size_t turn = 0; more && out.size() < kMostSymbols; ++turn) {
    more = false;
    for (std::size_t i = 0; i < by_file.size() && out.size() < kMostSymbols; ++i) {
      if (turn >= by_file[i].size()) continue;
      const source::Symbol& symbol = by_file[i][turn];
      out.push_back(
          {{"name", symbol.name}, {"kind", symbol.kind}, {"file", files[i]->path}, {"line", symbol.line}});
      more = true;
    }
  }
  return out;
}

std::string symbols_part(const std::vector<const SourceFile*>& files, const std::vector<Map>& symbols) {
  if (symbols.empty()) return "";
  Part part("Symbols", kSymbolsShare);
  for (const SourceFile* file : files) {
    std::string line;
    for (const Map& symbol : symbols) {
      const Map& of = utils::member(symbol, "file");
      if (!of.is_string() || of.get_ref<const std::string&>() != file->path) continue;
      line += (line.empty() ? "- " + quoted(file->path) + ": " : ", ") +
              quoted(utils::string_member(symbol, "name")) + " " + utils::string_member(symbol, "kind") +
              " L" + utils::text_form(utils::member(symbol, "line"));
    }
    if (!line.empty()) part.line(line, "file");
  }
  return part.text();
}

// Each file may take an equal share of the room that is left, so what a short file leaves goes to those after
// it. With equal shares of the whole room it would be lost.
std::string excerpts_part(const std::vector<const SourceFile*>& files, std::size_t room,
                          const ReadSource& read) {
  std::string text = "## Excerpts\n\nEach line of a file follows its number; `...` marks lines left out.\n\n";
  if (text.size() > room) return "";
  const std::size_t count = std::min(files.size(), kExcerptFiles);
  for (std::size_t i = 0; i < count; ++i) {
    const auto source = read(files[i]->path);
    if (source) text += file_excerpt(*files[i], *source, (room - text.size()) / (count - i));
  }
  return text;
}

// The first files of each page, taken in turn, so that each page has its share; sorted, as two pages may have
// a file in common.
std::vector<std::string> borrowed_files(const std::vector<std::string>& ids, const Plans& plans) {
  StringSet files;
  bool more = true;
  for (std::size_t turn = 0; more && files.size() < kBorrowedFiles; ++turn) {
    more = false;
    for (const std::string& id : ids) {
      const PagePlan* page = plans.find(id);
      if (page == nullptr || turn >= page->source_files.size() || files.size() == kBorrowedFiles) continue;
      files.insert(page->source_files[turn]);
      more = true;
    }
  }
  return {files.begin(), files.end()};
}

// Its own files; else some of the related pages and children; else those that the overview rests on. So an
// author always has something to go by, if the repository has anything.
std::vector<std::string> files_for(const PagePlan& plan, const Plans& plans, const SourceIndex& index) {
  if (!plan.source_files.empty()) return plan.source_files;
  std::vector<std::string> around = plan.related_pages;
  around.insert(around.end(), plan.children.begin(), plan.children.end());
  std::vector<std::string> files = borrowed_files(around, plans);
  return files.empty() ? overview_files(index) : files;
}

}  // namespace

// The files that tell most come first: READMEs, then code, prose and the rest; among those, where programs
// and packages begin, then the larger before the smaller. The path decides last, so that the order is the
// same each time.
std::vector<const SourceFile*> telling_files(const std::vector<std::string>& paths,
                                             const SourceIndex& index) {
  std::vector<std::pair<std::tuple<int, int, std::int64_t, std::string_view>, const SourceFile*>> ranked;
  for (const std::string& path : paths) {
    const SourceFile* file = index.find(path);
    if (file == nullptr || file->kind != source::FileKind::text || file->lines == 0) continue;
    const FileRole role = file_role(*file);
    const int order = is_readme(path) ? 0 : role == FileRole::code ? 1 : role == FileRole::prose ? 2 : 3;
    ranked.push_back({{order, entry_rank(*file), -file->lines, file->path}, file});
  }
  std::sort(ranked.begin(), ranked.end());
  std::vector<const SourceFile*> files;
  files.reserve(ranked.size());
  for (const auto& [rank, file] : ranked) files.push_back(file);
  return files;
}

std::string brief_text(const PagePlan& plan, const Plans& plans, const std::string& steering,
                       const SourceFile* example, const Abstracts& abstracts) {
  return purpose_part(plan) + rules_part(plan, example) + steering_part(steering) +
         pages_part(plan, plans, abstracts);
}

Grounding gather_grounding(const PagePlan& plan, const Plans& plans, const SourceIndex& index,
                           const std::string& steering, const ReadSource& read) {
  Grounding grounding;
  grounding.files = files_for(plan, plans, index);
  const std::vector<const SourceFile*> files = telling_files(grounding.files, index);
  grounding.symbols = page_symbols(files);
  grounding.text = brief_text(plan, plans, steering, files.empty() ? nullptr : files.front(), {}) +
                   files_part(grounding.files, index) + symbols_part(files, grounding.symbols);
  // Last, with all that is left. This does not underflow: the other parts' shares leave three tenths.
  if (!files.empty()) grounding.text += excerpts_part(files, kGroundingBudget - grounding.text.size(), read);
  return grounding;
}

}  // namespace ossilar::workers::wiki
