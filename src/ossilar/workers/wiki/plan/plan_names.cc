// Names come from paths, which may hold anything. They are made valid first and unique afterwards, and room
// for the suffix is kept free when they are cut: a number added to a name of full length would make it too
// long, and cutting it once more could make it the same as another.
#include "ossilar/workers/wiki/plan/plan_names.h"

#include <algorithm>
#include <unordered_map>

#include "ossilar/utils/fold.h"
#include "ossilar/utils/hash.h"
#include "ossilar/utils/text.h"
#include "ossilar/workers/wiki/config.h"
#include "ossilar/workers/wiki/page_title.h"

namespace ossilar::workers::wiki {
namespace {

// Room that is kept for "-" and eight digits of a hash, and again for "-" or " ()" with a number; a plan has
// far fewer pages than fit in its digits.
constexpr std::size_t kLongestSuffix = 12;

bool may_stand_in_id(char c) {
  return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '_' || c == '.' || c == '/';
}

// "." and ".." mean something to a file system, and "x.md/" would be where the page "x" is stored.
void mend_parts(std::string& id) {
  for (std::size_t start = 0; start < id.size();) {
    const std::size_t stop = std::min(id.find('/', start), id.size());
    const std::string_view part = std::string_view(id).substr(start, stop - start);
    if (part == "." || part == ".." || part.ends_with(".md"))
      std::replace(&id[start], &id[start] + part.size(), '.', '-');
    start = stop + 1;
  }
}

// `base`, or `base` with the first number that makes it new to `taken`.
template <class Key>
std::string first_free(const std::string& base, std::string_view before, std::string_view after,
                       std::unordered_set<std::string>& taken, Key key) {
  std::string name = base;
  for (int number = 2; !taken.insert(key(name)).second; ++number) {
    name = base + std::string(before) + std::to_string(number) + std::string(after);
  }
  return name;
}

}  // namespace

std::string slug_of(std::string_view path) {
  std::string id = utils::lower_case(path);
  std::replace_if(
      id.begin(), id.end(), [](char c) { return !may_stand_in_id(c); }, '-');
  mend_parts(id);
  // Cut ids get a part of the path's hash, as long paths mostly differ at their ends. Room for two suffixes:
  // the hash, and a number from UniqueNames.
  if (id.size() <= kLongestPageId - kLongestSuffix) return id;
  return id.substr(0, kLongestPageId - 2 * kLongestSuffix) + "-" + utils::sha256_hex(path).substr(0, 8);
}

std::string title_of(std::string_view text) {
  std::string title;
  for (const char c : utils::printable(text))
    title += c == '[' ? '(' : c == ']' ? ')' : c == '\n' || c == '\t' ? ' ' : c;
  // The limit is in characters; counting bytes is never too lenient. The end of a path tells more than its
  // beginning.
  if (title.size() <= kLongestTitle - kLongestSuffix) return title;
  std::size_t start = title.size() - (kLongestTitle - 2 * kLongestSuffix);
  // On to the first byte of a character: those after it look like 10xxxxxx.
  while (start < title.size() && (static_cast<unsigned char>(title[start]) & 0xC0U) == 0x80U) ++start;
  return "\u2026" + title.substr(start);
}

std::string counted(std::int64_t count, std::string_view noun) {
  std::string digits = std::to_string(count);
  for (std::size_t i = digits.size(); i > 3; i -= 3) digits.insert(i - 3, ",");
  return digits + " " + std::string(noun) + (count == 1 ? "" : "s");
}

std::string UniqueNames::id(std::string_view path) {
  return first_free(slug_of(path), "-", "", ids_, [](const std::string& id) { return id; });
}

std::string UniqueNames::title(std::string_view text) {
  return first_free(title_of(text), " (", ")", titles_,
                    [](const std::string& t) { return utils::fold_label(t); });
}

void link_pages(std::vector<PagePlan>& pages) {
  std::unordered_map<std::string_view, PagePlan*> by_id;
  for (PagePlan& page : pages) {
    page.children.clear();
    page.level = -1;
    by_id.emplace(page.page_id, &page);
  }
  // From a page upward to the first that has its level. A list instead of a recursion, as plans may be deep;
  // each page is in it once in all, so the whole is linear.
  std::vector<PagePlan*> line;
  for (PagePlan& page : pages) {
    if (page.type == "module" && !page.parent.empty())
      by_id.at(page.parent)->children.push_back(page.page_id);
    // A page without a parent gets its level at once; the next round then finds it set, and ends.
    for (PagePlan* p = &page; p->level < 0; p = line.back()->level < 0 ? by_id.at(p->parent) : p) {
      line.push_back(p);
      if (p->parent.empty()) p->level = p->type == "module" ? 1 : 0;
    }
    // Back down: the parent of each has its level by now.
    for (; !line.empty(); line.pop_back()) {
      PagePlan& next = *line.back();
      if (next.level < 0) next.level = by_id.at(next.parent)->level + 1;
    }
  }
}

}  // namespace ossilar::workers::wiki
