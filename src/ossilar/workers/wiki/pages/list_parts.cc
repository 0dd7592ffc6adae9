// Rows are sorted by id, so the pages of a prefix are one range of them, whose size is the difference of two
// ranks. Division therefore counts ranges and jumps from group to group instead of walking the rows. Groups
// differ in the character after the prefix, so no page is in two of them.
//
// Parts of equal size would balance better, but then one new page shifts the borders of all parts behind it,
// and two branches that each add a page get different files.
#include "ossilar/workers/wiki/pages/list_parts.h"

#include <algorithm>
#include <utility>

#include "ossilar/utils/hash.h"

namespace ossilar::workers::wiki {
namespace {

// File systems allow 255 bytes a name; the hash and the ending are added to this.
constexpr std::size_t kLongestName = 200;
constexpr std::size_t kPrefixHashDigits =
    16;  // 64 bits, to tell names apart that are cut to the same beginning

// Sorts after every character of a page id, so prefix + kAfterAll is the end of the prefix's range.
constexpr char kAfterAll = '\x7f';

std::string end_of(const std::string& prefix) { return prefix + kAfterAll; }

std::size_t count_below(const store::StoredRows& rows, const std::string& prefix) {
  return rows.rank(end_of(prefix)) - rows.rank(prefix);
}

std::string common_beginning(std::string_view a, std::string_view b) {
  const auto differs = std::mismatch(a.begin(), a.end(), b.begin(), b.end());
  return {a.begin(), differs.first};
}

void list_pages(const store::StoredRows& rows, const std::string& prefix, std::vector<std::string>& pages) {
  rows.for_each_below(prefix, [&](const std::string& page_id, const Map&) { pages.push_back(page_id); });
}

}  // namespace

ListPart list_part(const store::StoredRows& rows, const std::string& prefix) {
  ListPart part{.prefix = prefix, .pages = {}, .parts = {}};
  if (count_below(rows, prefix) <= kMostTogether) {
    list_pages(rows, prefix, part.pages);
    return part;
  }
  std::string at = prefix;
  for (const std::string* first = rows.first_from(at); first != nullptr && first->starts_with(prefix);
       first = rows.first_from(at)) {
    if (first->size() == prefix.size()) {
      // The page whose id is the prefix has no next character. Go on behind it, before any longer id.
      part.pages.push_back(*first);
      at = prefix + '\x01';
      continue;
    }
    const std::string group = first->substr(0, prefix.size() + 1);
    at = end_of(group);
    if (count_below(rows, group) < kFewestApart) {
      list_pages(rows, group, part.pages);
    } else {
      part.parts.push_back(common_beginning(*first, *rows.last_below(at)));
    }
  }
  return part;
}

std::vector<ListPart> parts_to(const store::StoredRows& rows, std::string_view page_id) {
  std::vector<ListPart> way;
  std::string prefix;
  for (bool goes_on = true; goes_on;) {
    way.push_back(list_part(rows, prefix));
    goes_on = false;
    for (const std::string& below : way.back().parts) {  // at most one of them begins the id
      if (!page_id.starts_with(below)) continue;
      prefix = below;
      goes_on = true;
    }
  }
  return way;
}

// A stack instead of recursion: the depth follows from the ids. Parts are pushed in reverse so that they come
// out in order.
std::vector<ListPart> all_parts(const store::StoredRows& rows) {
  std::vector<ListPart> all;
  std::vector<std::string> pending{""};
  while (!pending.empty()) {
    ListPart part = list_part(rows, pending.back());
    pending.pop_back();
    pending.insert(pending.end(), part.parts.rbegin(), part.parts.rend());
    all.push_back(std::move(part));
  }
  return all;
}

std::string list_file(const std::string& prefix, const char* end) {
  if (prefix.empty()) return std::string(end == std::string_view(kIndexEnd) ? "index" : "manifest") + end;
  std::string name = prefix.substr(0, kLongestName);
  std::replace(name.begin(), name.end(), '/', '+');  // no page id has a plus, so names stay distinct
  if (prefix.size() > kLongestName) name += "+" + utils::sha256_hex(prefix).substr(0, kPrefixHashDigits);
  return std::string(kListsFolder) + "/" + name + end;
}

}  // namespace ossilar::workers::wiki
