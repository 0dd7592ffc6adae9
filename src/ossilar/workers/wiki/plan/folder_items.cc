#include "ossilar/workers/wiki/plan/folder_items.h"

#include <algorithm>
#include <tuple>
#include <unordered_map>
#include <utility>

#include "ossilar/utils/text.h"
#include "ossilar/workers/wiki/plan/file_roles.h"
#include "ossilar/workers/wiki/plan/grouping/name_words.h"
#include "ossilar/workers/wiki/plan/import_resolver.h"

namespace ossilar::workers::wiki {
namespace {

using source::SourceFile;

constexpr std::size_t kLeastTests = 4;  // fewer may just be about tests

bool begins_with_test(const Item& item) { return words_of(item.name).front() == "test"; }

// "parser" of parser_test, test_parser, parser.spec; the whole stem if it has no such part.
std::string tested_name(std::string_view path) {
  const std::string stem = utils::lower_case(file_stem(path));
  for (const std::string_view end : {"_test", ".test", "-test", "_spec", ".spec", "_unittest"}) {
    if (stem.ends_with(end)) return stem.substr(0, stem.size() - end.size());
  }
  return stem.starts_with("test_") ? stem.substr(5) : stem;
}

// The files of the items, and those of which imports are read: the roots of the packages around the folder,
// where a Rust path begins.
std::vector<const SourceFile*> known_files(const std::string& folder, const std::vector<Item>& items,
                                           const source::SourceIndex& index) {
  std::vector<const SourceFile*> files;
  for (const Item& item : items) files.insert(files.end(), item.files.begin(), item.files.end());
  for (std::string_view above = folder; !above.empty();) {
    above = folder_of(above);
    for (const char* name : {"lib.rs", "main.rs", "mod.rs"}) {
      const SourceFile* root = index.find((above.empty() ? "" : std::string(above) + "/") + name);
      if (root != nullptr) files.push_back(root);
    }
  }
  return files;
}

// Only what is imported from the same folder matters here, so the resolver knows no other files: one of the
// whole repository takes longer to make than the rest of the plan.
ItemLinks links_between(const std::string& folder, const std::vector<Item>& items,
                        const source::SourceIndex& index) {
  std::unordered_map<std::string_view, std::size_t> item_of;
  for (std::size_t i = 0; i < items.size(); ++i) {
    for (const SourceFile* file : items[i].files) item_of.emplace(file->path, i);
  }
  const ImportResolver resolver(known_files(folder, items, index));
  ItemLinks between;
  for (std::size_t i = 0; i < items.size(); ++i) {
    for (const SourceFile* file : items[i].files) {
      for (const std::string& import : file->imports.all()) {
        const auto found = item_of.find(resolver.resolve(*file, import));
        if (found != item_of.end()) between.emplace_back(i, found->second);
      }
    }
  }
  return between;
}

// Named like the folder, then by rank; of equals the largest, then the first.
std::size_t entry_of(const std::string& folder, const std::vector<Item>& items) {
  std::tuple<int, std::int64_t, std::size_t> best;
  for (std::size_t i = 0; i < items.size(); ++i) {
    int rank = items[i].name == file_name(folder) ? 0 : kNoEntryPoint;
    for (const SourceFile* file : items[i].files) rank = std::min(rank, entry_rank(*file));
    const auto ranked = std::make_tuple(rank, -items[i].weight, i);
    if (i == 0 || ranked < best) best = ranked;
  }
  return std::get<2>(best);
}

}  // namespace

std::vector<Item> with_each_name_once(std::vector<Item> items) {
  std::stable_sort(items.begin(), items.end(), [](const Item& a, const Item& b) { return a.name < b.name; });
  std::vector<Item> merged;
  for (Item& item : items) {
    if (merged.empty() || merged.back().name != item.name) {
      merged.push_back(std::move(item));
    } else {
      merged.back().weight += item.weight;
      merged.back().files.insert(merged.back().files.end(), item.files.begin(), item.files.end());
    }
  }
  return merged;
}

std::vector<Item> take_tests(std::vector<Item>& items) {
  const auto first = std::stable_partition(items.begin(), items.end(),
                                           [](const Item& item) { return !begins_with_test(item); });
  // In a folder of little else they are the subject.
  const auto count = static_cast<std::size_t>(items.end() - first);
  if (count < kLeastTests || 2 * count > items.size()) {
    items = with_each_name_once(std::move(items));
    return {};
  }
  std::vector<Item> tests(std::make_move_iterator(first), std::make_move_iterator(items.end()));
  items.erase(first, items.end());
  return tests;
}

std::vector<const SourceFile*> join_tests(std::vector<Item>& items,
                                          std::vector<const SourceFile*>& companions) {
  std::unordered_map<std::string, std::size_t> item_of;
  for (std::size_t i = 0; i < items.size(); ++i) item_of.emplace(utils::lower_case(items[i].name), i);
  std::vector<const SourceFile*> others;
  std::erase_if(companions, [&](const SourceFile* file) {
    if (file_role(*file) != FileRole::test) return false;
    const auto tested = item_of.find(tested_name(file->path));
    (tested == item_of.end() ? others : items[tested->second].files).push_back(file);
    return true;
  });
  return others;
}

GroupedItems divided(const std::string& folder, std::vector<Item> items, const CommunitySizes& sizes,
                     const source::SourceIndex& index) {
  GroupedItems grouped;
  if (total_weight(items) <= sizes.most) {
    grouped.home = std::move(items);
    return grouped;
  }
  ItemLinks between = items.size() > kMostTied ? ItemLinks() : links_between(folder, items, index);
  const std::size_t entry = entry_of(folder, items);
  return group_items(std::move(items), std::move(between), entry, sizes);
}

}  // namespace ossilar::workers::wiki
