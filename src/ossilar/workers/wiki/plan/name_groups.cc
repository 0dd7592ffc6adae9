// Two ways of grouping, the telling one first: names with the same first word, then ranges of the alphabet
// for what is left. Ranges are found by halving fixed parts of the alphabet rather than by counting files, so
// that the pages of a folder keep their files when one is added.
#include "ossilar/workers/wiki/plan/name_groups.h"

#include <algorithm>
#include <iterator>
#include <map>
#include <optional>
#include <utility>

#include "ossilar/utils/text.h"
#include "ossilar/workers/wiki/plan/plan_names.h"

namespace ossilar::workers::wiki {
namespace {

// Two names that begin alike are a coincidence more often than a subject.
constexpr std::size_t kLeastAlike = 3;
constexpr std::size_t kLeastStem = 3;  // bytes; "is*" and "a*" say nothing

bool is_upper(char c) { return c >= 'A' && c <= 'Z'; }
// What a capital may follow to begin a word: digits too, as in "Base64Codec".
bool is_lower(char c) { return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9'); }

// The first word of a name: up to a separator, or to the capital that begins the next word.
std::string first_word(const std::string& name) {
  for (std::size_t i = 1; i < name.size(); ++i) {
    if (name[i] == '_' || name[i] == '-' || name[i] == '.') return name.substr(0, i);
    if (is_upper(name[i]) && is_lower(name[i - 1])) return name.substr(0, i);
  }
  return name;
}

// Of `items` in the order of their names: x.c and x.h count once.
std::size_t distinct_names(const std::vector<Item>& items) {
  std::size_t count = 0;
  for (std::size_t i = 0; i < items.size(); ++i)
    count += i == 0 || items[i].name != items[i - 1].name ? 1 : 0;
  return count;
}

// Characters as places of an alphabet: the digits, then the letters. What is neither shares the place of '0'.
constexpr std::size_t kFirstLetter = 10;
constexpr std::size_t kLastLetter = 35;

std::size_t place_of(char c) {
  if (c >= 'a' && c <= 'z') return kFirstLetter + static_cast<std::size_t>(c - 'a');
  return c >= '1' && c <= '9' ? static_cast<std::size_t>(c - '0') : 0;
}

char character_at(std::size_t place) {
  return static_cast<char>(place < kFirstLetter ? '0' + place : 'a' + (place - kFirstLetter));
}

// Items whose names begin with `prefix` and go on with a character at a place from `low` to `high`; a name
// that ends there counts as '0'.
struct Range {
  std::string prefix;
  std::size_t low = 0;
  std::size_t high = kLastLetter;
  std::vector<Item> items;

  std::size_t place(const Item& item) const {
    return prefix.size() < item.name.size() ? place_of(item.name[prefix.size()]) : 0;
  }
};

std::string common_prefix(const std::vector<Item>& items) {
  std::string_view common = items.front().name;
  for (const Item& item : items) {
    const auto differs = std::mismatch(common.begin(), common.end(), item.name.begin(), item.name.end());
    common = common.substr(0, static_cast<std::size_t>(differs.first - common.begin()));
  }
  return std::string(common);
}

// The range as a group. Its label shows the names as they are written, its slug is in lower case. Lowering
// keeps lengths, so the length of the prefix holds in both.
NameGroup group_of(Range range) {
  const std::string& name = range.items.front().written;
  if (distinct_names(range.items) == 1) return {name, range.items.front().name, std::move(range.items)};
  const std::string written = name.substr(0, range.prefix.size());
  const std::string low(1, character_at(range.low));
  const std::string high(1, character_at(range.high));
  NameGroup group{
      written + low + "\u2013" + written + high, range.prefix + low + "-" + range.prefix + high, {}};
  if (range.low == range.high) group = {written + low + "*", range.prefix + low, {}};
  group.items = std::move(range.items);
  return group;
}

// The last place of the lower half, or none if the range cannot be divided. A range of a single character
// first gets the longer prefix that its names have in common, and the whole alphabet for what follows it.
//
// Each call narrows the range or lengthens its prefix, so dividing ends.
std::optional<std::size_t> middle(Range& range) {
  if (range.low == range.high) {
    std::string prefix = common_prefix(range.items);
    if (prefix.size() <= range.prefix.size()) return std::nullopt;
    const bool same = std::all_of(range.items.begin(), range.items.end(),
                                  [&](const Item& item) { return item.name == prefix; });
    if (same) return std::nullopt;
    range.prefix = std::move(prefix);
    range.low = 0;
    range.high = kLastLetter;
  }
  // The whole alphabet parts between digits and letters, so that the labels of letters are a–m and n–z.
  return range.low < kFirstLetter && range.high == kLastLetter ? kFirstLetter - 1
                                                               : (range.low + range.high) / 2;
}

// Halves the range until each part is within reach. It halves the alphabet and not the files: the median
// would move with every new file, and with it the bounds of all pages.
std::vector<Range> halved(std::vector<Item> items, std::int64_t reach) {
  std::vector<Range> done;
  std::vector<Range> open;
  open.push_back({"", 0, kLastLetter, std::move(items)});
  while (!open.empty()) {
    Range range = std::move(open.back());
    open.pop_back();
    if (range.items.empty()) continue;
    const auto parting = total_weight(range.items) > reach ? middle(range) : std::nullopt;
    if (!parting) {
      done.push_back(std::move(range));
      continue;
    }
    // Stable, for the items are in the order of their names. The upper half is put back first, so that the
    // lower one is next and the result is in order.
    const auto split = std::stable_partition(range.items.begin(), range.items.end(),
                                             [&](const Item& item) { return range.place(item) <= *parting; });
    open.push_back({range.prefix,
                    *parting + 1,
                    range.high,
                    {std::make_move_iterator(split), std::make_move_iterator(range.items.end())}});
    range.items.erase(split, range.items.end());
    open.push_back({range.prefix, range.low, *parting, std::move(range.items)});
  }
  return done;
}

// Stable, so that x.c and x.h stay as they were. Items mostly come in order, and a check is cheaper than
// moving them.
void sort_by_name(std::vector<Item>& items) {
  const auto by_name = [](const Item& a, const Item& b) { return a.name < b.name; };
  if (!std::is_sorted(items.begin(), items.end(), by_name))
    std::stable_sort(items.begin(), items.end(), by_name);
}

// Takes out of `items` those that share their first word with enough others. The rest stays, no longer in
// order.
std::vector<NameGroup> groups_alike(std::vector<Item>& items, std::int64_t reach, std::int64_t least) {
  std::map<std::string, std::vector<Item>> by_word;
  // What belongs together by name is one subject: better one page of up to two reaches than two halves. But a
  // word that more than half of the folder shares, such as the project's prefix, tells nothing apart.
  const std::int64_t most = std::min(2 * reach, total_weight(items) / 2);
  for (Item& item : items) by_word[first_word(item.name)].push_back(std::move(item));
  items.clear();
  std::vector<NameGroup> groups;
  for (auto& [word, alike] : by_word) {
    const std::int64_t weight = total_weight(alike);
    if (word.size() >= kLeastStem && weight >= least && weight <= most &&
        distinct_names(alike) >= kLeastAlike) {
      groups.push_back({word + "*", word, std::move(alike)});
    } else {
      std::move(alike.begin(), alike.end(), std::back_inserter(items));
    }
  }
  return groups;
}

}  // namespace

std::int64_t total_weight(const std::vector<Item>& items) {
  std::int64_t sum = 0;
  for (const Item& item : items) sum += item.weight;
  return sum;
}

GroupedItems group_by_name(std::vector<Item> items, std::int64_t reach, std::int64_t least) {
  // First by the names as written: words are told by their capitals. Ranges then take no notice of case.
  sort_by_name(items);
  for (Item& item : items) item.written = item.name;
  GroupedItems grouped;
  grouped.groups = groups_alike(items, reach, least);
  if (total_weight(items) <= reach) {
    grouped.rest = std::move(items);
    return grouped;
  }
  for (Item& item : items) item.name = utils::lower_case(item.name);
  sort_by_name(items);
  // Light ranges go to the folder's own page while that stays within reach, and else become groups after all.
  std::int64_t room = reach;
  for (Range& range : halved(std::move(items), reach)) {
    const std::int64_t weight = total_weight(range.items);
    if (weight < least && weight <= room) {
      room -= weight;
      std::move(range.items.begin(), range.items.end(), std::back_inserter(grouped.rest));
    } else {
      grouped.groups.push_back(group_of(std::move(range)));
    }
  }
  return grouped;
}

}  // namespace ossilar::workers::wiki
