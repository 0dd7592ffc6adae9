// A group is named by what two thirds of its names begin with, if few others do; else by the items that are
// tied most closely to the rest of it and hold most of its lines. Both change less than the group does.
#include "ossilar/workers/wiki/plan/grouping/group_names.h"

#include <algorithm>
#include <tuple>
#include <unordered_map>

#include "ossilar/utils/text.h"
#include "ossilar/workers/wiki/plan/grouping/name_words.h"

namespace ossilar::workers::wiki {
namespace {

constexpr std::size_t kMostNames = 3;       // in a label, which is part of a title
constexpr std::int64_t kTellingShare = 10;  // an item with less than a tenth of the group names nothing

// Whether at least `part` of `whole` of all are these.
bool is_share(std::size_t count, std::size_t all, std::size_t part, std::size_t whole) {
  return count * whole >= all * part;
}

}  // namespace

GroupNames::GroupNames(const std::vector<Item>& items, const std::vector<Tie>& ties)
    : items_(items), ties_(ties) {
  for (const Item& item : items) {
    for (const std::size_t end : word_ends(item.name)) ++everywhere_[item.name.substr(0, end)];
  }
  for (const auto& [prefix, count] : everywhere_) {
    if (count > 1 && is_share(count, items.size(), 3, 4) && prefix.size() > everyones_.size())
      everyones_ = prefix;
  }
}

// Without what nearly all names have, and the separators after it.
std::string_view GroupNames::shortened(std::string_view name) const {
  if (everyones_.empty() || !name.starts_with(everyones_)) return name;
  const std::size_t start = name.find_first_not_of("_-. ", everyones_.size());
  return start == std::string_view::npos ? name : name.substr(start);
}

GroupName GroupNames::of(const std::vector<std::size_t>& places) const {
  const std::string common = common_part(places);
  if (!common.empty()) return {std::string(shortened(common)) + "*", std::string(shortened(common))};
  return after_items(places);
}

GroupName GroupNames::after_items(const std::vector<std::size_t>& places) const {
  std::vector<std::string> names;
  for (const std::size_t place : telling(places)) names.emplace_back(shortened(items_[place].name));
  return {utils::join(names, ", "), names.front()};
}

// The longest beginning that two thirds of the names have, and that is no beginning of most names elsewhere;
// "" if there is none, or one name alone. A beginning is whole words, or a whole name that others go on from.
std::string GroupNames::common_part(const std::vector<std::size_t>& places) const {
  Counts here;
  for (const std::size_t place : places) {
    const std::string& name = items_[place].name;
    for (const std::size_t end : word_ends(name)) here.emplace(name.substr(0, end), 0);
  }
  std::string best;
  for (auto& [prefix, count] : here) {
    for (const std::size_t place : places) count += items_[place].name.starts_with(prefix) ? 1 : 0;
    const auto all = everywhere_.find(prefix);
    const bool tells = prefix.size() > everyones_.size() && !is_share(all->second, items_.size(), 1, 2);
    if (count > 1 && tells && is_share(count, places.size(), 2, 3) && prefix.size() > best.size())
      best = prefix;
  }
  return best;
}

// Up to three places of the group.
std::vector<std::size_t> GroupNames::telling(const std::vector<std::size_t>& places) const {
  std::unordered_map<std::size_t, std::int64_t> strengths;
  std::int64_t weight = 0;
  for (const std::size_t place : places) {
    strengths[place] = 1;
    weight += items_[place].weight;
  }
  for (const Tie& tie : ties_) {
    const auto a = strengths.find(tie.a), b = strengths.find(tie.b);
    if (a == strengths.end() || b == strengths.end()) continue;
    a->second += tie.strength;
    b->second += tie.strength;
  }
  std::vector<std::tuple<double, std::size_t>> ranked;
  for (const std::size_t place : places) {
    const double rank = static_cast<double>(strengths[place]) * static_cast<double>(items_[place].weight);
    ranked.emplace_back(-rank, place);
  }
  std::sort(ranked.begin(), ranked.end());
  std::vector<std::size_t> out;
  for (const auto& [rank, place] : ranked) {
    const bool is_first = out.empty();
    if (out.size() < kMostNames && (is_first || items_[place].weight * kTellingShare >= weight))
      out.push_back(place);
  }
  return out;
}

}  // namespace ossilar::workers::wiki
