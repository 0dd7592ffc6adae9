// It halves the alphabet and not the items: the median would move with every new file, and with it the bounds
// of all pages.
#include "ossilar/workers/wiki/plan/grouping/alphabet.h"

#include <algorithm>
#include <iterator>
#include <optional>
#include <string>
#include <utility>

#include "ossilar/utils/text.h"

namespace ossilar::workers::wiki {
namespace {

// Characters as places of an alphabet: the digits, then the letters. What is neither shares the place of '0'.
constexpr std::size_t kFirstLetter = 10;
constexpr std::size_t kLastLetter = 35;

std::size_t letter_of(char c) {
  if (c >= 'a' && c <= 'z') return kFirstLetter + static_cast<std::size_t>(c - 'a');
  return c >= '1' && c <= '9' ? static_cast<std::size_t>(c - '0') : 0;
}

char character_at(std::size_t letter) {
  return static_cast<char>(letter < kFirstLetter ? '0' + letter : 'a' + (letter - kFirstLetter));
}

struct Named {
  std::size_t place = 0;
  std::string name;  // in lower case
  std::int64_t weight = 0;
};

// Items whose names begin with `prefix` and go on with a character from `low` to `high`; a name that ends
// there counts as '0'.
struct Range {
  std::string prefix;
  std::size_t low = 0;
  std::size_t high = kLastLetter;
  std::vector<Named> items;

  std::size_t letter(const Named& item) const {
    return prefix.size() < item.name.size() ? letter_of(item.name[prefix.size()]) : 0;
  }
  std::int64_t weight() const {
    std::int64_t sum = 0;
    for (const Named& item : items) sum += item.weight;
    return sum;
  }
};

std::string common_prefix(const std::vector<Named>& items) {
  std::string_view common = items.front().name;
  for (const Named& item : items) {
    const auto differs = std::mismatch(common.begin(), common.end(), item.name.begin(), item.name.end());
    common = common.substr(0, static_cast<std::size_t>(differs.first - common.begin()));
  }
  return std::string(common);
}

// The last letter of the lower half, or none if the range cannot be divided. A range of a single letter first
// gets the longer prefix that its names have in common, and the whole alphabet for what follows it.
//
// Each call narrows the range or lengthens its prefix, so dividing ends.
std::optional<std::size_t> middle(Range& range) {
  if (range.items.size() == 1) return std::nullopt;
  if (range.low == range.high) {
    std::string prefix = common_prefix(range.items);
    if (prefix.size() <= range.prefix.size()) return std::nullopt;
    range.prefix = std::move(prefix);
    range.low = 0;
    range.high = kLastLetter;
  }
  // The whole alphabet parts between digits and letters, so that the labels of letters are a–m and n–z.
  return range.low < kFirstLetter && range.high == kLastLetter ? kFirstLetter - 1
                                                               : (range.low + range.high) / 2;
}

AlphabetRange named(const Range& range, const std::vector<Item>& items) {
  AlphabetRange out;
  for (const Named& item : range.items) out.places.push_back(item.place);
  const std::string& written = items[out.places.front()].name;
  const std::string low(1, character_at(range.low));
  const std::string high(1, character_at(range.high));
  // Lowering keeps lengths, so the length of the prefix holds in the name as written too.
  const std::string shown = written.substr(0, range.prefix.size());
  out.name = {shown + low + "\u2013" + shown + high, range.prefix + low + "-" + range.prefix + high};
  if (range.low == range.high) out.name = {shown + low + "*", range.prefix + low};
  if (out.places.size() == 1) out.name = {written, written};
  return out;
}

}  // namespace

std::vector<AlphabetRange> alphabet_ranges(const std::vector<Item>& items,
                                           const std::vector<std::size_t>& places, std::int64_t most) {
  std::vector<Range> open(1);
  for (const std::size_t place : places)
    open[0].items.push_back({place, utils::lower_case(items[place].name), items[place].weight});
  std::vector<AlphabetRange> done;
  while (!open.empty()) {
    Range range = std::move(open.back());
    open.pop_back();
    if (range.items.empty()) continue;
    const auto parting = range.weight() > most ? middle(range) : std::nullopt;
    if (!parting) {
      done.push_back(named(range, items));
      continue;
    }
    const auto split = std::stable_partition(range.items.begin(), range.items.end(), [&](const Named& item) {
      return range.letter(item) <= *parting;
    });
    // The upper half is put back first, so that the lower one is next and the result is in order.
    open.push_back({range.prefix, *parting + 1, range.high, {split, range.items.end()}});
    range.items.erase(split, range.items.end());
    open.push_back({range.prefix, range.low, *parting, std::move(range.items)});
  }
  return done;
}

}  // namespace ossilar::workers::wiki
