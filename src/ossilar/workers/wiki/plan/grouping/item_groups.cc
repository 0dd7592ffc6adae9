// The communities of the items become the groups. One is the folder's own: it has the entry, and is where
// what is too small for a page goes. What is left over then is divided by the alphabet.
#include "ossilar/workers/wiki/plan/grouping/item_groups.h"

#include <algorithm>
#include <set>
#include <string>
#include <utility>

#include "ossilar/workers/wiki/plan/grouping/alphabet.h"

namespace ossilar::workers::wiki {
namespace {

using Places = std::vector<std::size_t>;  // in the list of items, in order

std::int64_t weight_of(const std::vector<Item>& items, const Places& places) {
  std::int64_t sum = 0;
  for (const std::size_t place : places) sum += items[place].weight;
  return sum;
}

void append(Places& places, const Places& more) { places.insert(places.end(), more.begin(), more.end()); }

struct Sorted {
  Places home;
  std::vector<Places> groups;
  Places left;  // too small for groups, too much for home and for one page
};

// Where the entry is tied to nothing, the folder's own page would be that file alone.
void join_lightest(Sorted& sorted, const std::vector<Item>& items, const CommunitySizes& sizes) {
  const auto lightest = std::min_element(
      sorted.groups.begin(), sorted.groups.end(),
      [&](const Places& a, const Places& b) { return weight_of(items, a) < weight_of(items, b); });
  if (lightest == sorted.groups.end()) return;
  if (weight_of(items, *lightest) + weight_of(items, sorted.home) > sizes.most) return;
  append(sorted.home, *lightest);
  sorted.groups.erase(lightest);
}

Sorted sorted_by_size(std::vector<Places> found, const std::vector<Item>& items, std::size_t entry,
                      const CommunitySizes& sizes) {
  Sorted out;
  const auto has_entry = [&](const Places& places) {
    return std::binary_search(places.begin(), places.end(), entry);
  };
  const auto home = std::find_if(found.begin(), found.end(), has_entry);
  out.home = std::move(*home);
  found.erase(home);
  for (Places& places : found) {
    if (weight_of(items, places) >= sizes.least) {
      out.groups.push_back(std::move(places));
    } else {
      append(out.left, places);
    }
  }
  // All or none: which of them fit would change with every file. Too little for a page goes home in any case;
  // better a page that is a little too large than files on none.
  const std::int64_t rest = weight_of(items, out.left);
  if (rest < sizes.least || rest + weight_of(items, out.home) <= sizes.most) {
    append(out.home, std::exchange(out.left, {}));
  } else if (rest <= sizes.most) {
    out.groups.push_back(std::exchange(out.left, {}));
  }
  if (weight_of(items, out.home) < sizes.least) join_lightest(out, items, sizes);
  std::sort(out.home.begin(), out.home.end());
  std::sort(out.left.begin(), out.left.end());
  for (Places& group : out.groups) std::sort(group.begin(), group.end());
  return out;
}

// Of groups that would have one name the heaviest gets it, the others are named after their items.
std::vector<GroupName> names_of(const std::vector<Places>& groups, const std::vector<Item>& items,
                                const std::vector<Tie>& ties) {
  std::vector<std::pair<std::int64_t, std::size_t>> by_weight;
  for (std::size_t i = 0; i < groups.size(); ++i) by_weight.emplace_back(-weight_of(items, groups[i]), i);
  std::sort(by_weight.begin(), by_weight.end());
  const GroupNames naming(items, ties);
  std::vector<GroupName> names(groups.size());
  std::set<std::string> taken;
  for (const auto& [weight, i] : by_weight) {
    names[i] = naming.of(groups[i]);
    if (!taken.insert(names[i].slug).second) names[i] = naming.after_items(groups[i]);
  }
  return names;
}

std::vector<Item> taken_out(std::vector<Item>& items, const Places& places) {
  std::vector<Item> out;
  out.reserve(places.size());
  for (const std::size_t place : places) out.push_back(std::move(items[place]));
  return out;
}

}  // namespace

std::int64_t total_weight(const std::vector<Item>& items) {
  std::int64_t sum = 0;
  for (const Item& item : items) sum += item.weight;
  return sum;
}

GroupedItems group_items(std::vector<Item> items, ItemLinks links, std::size_t entry,
                         const CommunitySizes& sizes) {
  const std::vector<Tie> ties =
      items.size() > kMostTied ? std::vector<Tie>() : affinity(items, std::move(links));
  std::vector<std::int64_t> weights;
  weights.reserve(items.size());
  for (const Item& item : items) weights.push_back(item.weight);
  const Sorted sorted = sorted_by_size(communities(weights, ties, sizes), items, entry, sizes);
  const std::vector<GroupName> names = names_of(sorted.groups, items, ties);
  const std::vector<AlphabetRange> ranges = alphabet_ranges(items, sorted.left, sizes.most);
  GroupedItems grouped;
  for (std::size_t i = 0; i < sorted.groups.size(); ++i)
    grouped.groups.push_back({names[i], taken_out(items, sorted.groups[i])});
  for (const AlphabetRange& range : ranges)
    grouped.groups.push_back({range.name, taken_out(items, range.places)});
  grouped.home = taken_out(items, sorted.home);
  return grouped;
}

}  // namespace ossilar::workers::wiki
