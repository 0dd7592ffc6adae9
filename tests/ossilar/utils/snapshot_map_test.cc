#include "ossilar/utils/snapshot_map.h"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <tuple>

namespace ossilar::utils {
namespace {

using Model = std::map<std::string, std::shared_ptr<const int>>;
using Difference = std::vector<std::tuple<std::string, const int*, const int*>>;

Difference difference(const Model& before, const Model& after) {
  Model keys = before;
  keys.insert(after.begin(), after.end());
  Difference out;
  for (const auto& [key, ignored] : keys) {
    const int* old_value = before.contains(key) ? before.at(key).get() : nullptr;
    const int* new_value = after.contains(key) ? after.at(key).get() : nullptr;
    if (old_value != new_value) out.emplace_back(key, old_value, new_value);
  }
  return out;
}

// Grows to some 2,000 entries, shrinks to a few and grows again, so that blocks split, empty and are removed.
TEST(SnapshotMap, BehavesLikeAMapAndItsSnapshotsNeverChange) {
  std::mt19937 random(7);
  SnapshotMap<int> map;
  Model model;
  std::vector<std::pair<SnapshotMap<int>, Model>> snapshots{{map, model}};
  for (int step = 0; step < 12'000; ++step) {
    const unsigned erase_percent = (step / 4000) % 2 == 0 ? 25 : 85;
    std::string key = "page/" + std::to_string(random() % 3000);
    if (random() % 100 < erase_percent) {
      if (const auto there = model.lower_bound(key); there != model.end()) key = there->first;
      ASSERT_EQ(map.erase(key), model.erase(key) == 1);
    } else {
      model[key] = std::make_shared<const int>(step);
      map.set(key, model[key]);
    }
    ASSERT_EQ(map.find(key), model.contains(key) ? model[key].get() : nullptr);
    if (step % 600 == 599) snapshots.emplace_back(map, model);
  }
  for (const auto& [before, before_model] : snapshots) {
    Model contents;
    before.for_each(
        [&, map = &before](const std::string& key, const int&) { contents[key] = map->share(key); });
    ASSERT_EQ(contents, before_model);
    for (const char* const key : {"", "page/1", "page/2500", "page/3", "q"}) {
      const auto there = before_model.lower_bound(key);
      ASSERT_EQ(before.rank(key), std::distance(before_model.begin(), there));
      const std::string* first = before.first_from(key);
      ASSERT_EQ(first == nullptr ? "" : *first, there == before_model.end() ? "" : there->first);
      const std::string* last = before.last_below(key);
      ASSERT_EQ(last == nullptr ? "" : *last, there == before_model.begin() ? "" : std::prev(there)->first);
    }
    std::size_t below = 0;
    before.for_each_below("page/12", [&](const std::string& key, const int&) {
      ASSERT_TRUE(key.starts_with("page/12"));
      ++below;
    });
    ASSERT_EQ(below, before.rank("page/13") - before.rank("page/12"));
    const std::vector<std::string> keys = before.keys();
    ASSERT_TRUE(keys.size() == before.size() && std::is_sorted(keys.begin(), keys.end()));
    for (const auto& [after, after_model] : snapshots) {
      Difference found;
      for_each_difference(before, after, [&](auto&&... difference) { found.emplace_back(difference...); });
      ASSERT_EQ(found, difference(before_model, after_model));
    }
  }
}

}  // namespace
}  // namespace ossilar::utils
