// Each thing that items share is a trait: an included item, a first part of their names, a word of their
// symbols' names. All who have a trait are tied, the more closely the fewer they are. Strengths are integers,
// so that adding them up gives the same in any order.
#include "ossilar/workers/wiki/plan/grouping/affinity.h"

#include <algorithm>
#include <unordered_map>

#include "ossilar/utils/text.h"
#include "ossilar/workers/wiki/plan/grouping/name_words.h"

namespace ossilar::workers::wiki {
namespace {

// The strength of a tie that two items share with no other. Large, so that divisions lose little.
constexpr std::int64_t kUnit = 10080;
// A name is chosen to say what belongs together; what a file needs is often only a tool to it.
constexpr std::int64_t kNameShare = 2;
// A trait of more items than this tells nothing apart. It also keeps the number of ties linear.
constexpr std::size_t kMostSharing = 24;
constexpr std::size_t kLeastPrefix = 3;    // bytes, for a name that others go on from without a new word
constexpr std::size_t kLeastWord = 3;      // bytes; "get" tells little, but then many have it
constexpr std::size_t kMostSymbols = 400;  // of a file; the first ones show what it is about

using Holders = std::vector<std::size_t>;  // items with a trait, in order, each once

// Whether a trait of so many of `all` items tells any of them apart.
bool tells(std::size_t count, std::size_t all) {
  return count >= 2 && count <= kMostSharing && 4 * count <= 3 * all;
}

template <class Strength>
void tie_all(const Holders& holders, std::size_t all, std::vector<Tie>& ties, Strength strength) {
  if (!tells(holders.size(), all)) return;
  for (std::size_t i = 0; i < holders.size(); ++i) {
    for (std::size_t k = i + 1; k < holders.size(); ++k) {
      const std::int64_t how = strength(holders[i], holders[k]);
      if (how > 0) ties.push_back({holders[i], holders[k], how});
    }
  }
}

std::int64_t share_of(std::size_t count) { return kUnit / static_cast<std::int64_t>(count); }

// An include ties to what is included, and less closely to whoever includes the same.
void tie_links(ItemLinks links, std::size_t all, std::vector<Tie>& ties) {
  for (auto& [from, to] : links) std::swap(from, to);  // by what is included
  std::sort(links.begin(), links.end());
  links.erase(std::unique(links.begin(), links.end()), links.end());
  for (auto first = links.begin(); first != links.end();) {
    const std::size_t target = first->first;
    const auto last =
        std::find_if(first, links.end(), [target](const auto& link) { return link.first != target; });
    Holders holders;
    for (; first != last; ++first) {
      if (first->second != target) holders.push_back(first->second);
    }
    if (holders.empty()) continue;
    const std::int64_t strength = share_of(holders.size());
    for (const std::size_t from : holders) ties.push_back({target, from, strength});
    tie_all(holders, all, ties, [&](std::size_t, std::size_t) { return strength / 2; });
  }
}

// "vdbe" is the first part of the names vdbe_sort, vdbeMem and vdbeaux: in the first two because a word ends
// there, in the last because it is a name itself.
void tie_names(const std::vector<Item>& items, std::vector<Tie>& ties) {
  std::vector<std::string> names;
  names.reserve(items.size());
  for (const Item& item : items) names.push_back(utils::lower_case(item.name));
  std::unordered_map<std::string_view, Holders> by_part;
  for (std::size_t i = 0; i < items.size(); ++i) {
    for (const std::size_t end : word_ends(items[i].name))
      by_part[std::string_view(names[i]).substr(0, end)].push_back(i);
  }
  for (std::size_t i = 0; i < items.size(); ++i) {
    for (std::size_t end = kLeastPrefix; end < names[i].size(); ++end) {
      const auto part = by_part.find(std::string_view(names[i]).substr(0, end));
      if (part != by_part.end()) part->second.push_back(i);
    }
  }
  for (auto& [part, holders] : by_part) {
    std::sort(holders.begin(), holders.end());
    holders.erase(std::unique(holders.begin(), holders.end()), holders.end());
    const std::int64_t strength = kNameShare * share_of(holders.size());
    tie_all(holders, items.size(), ties, [&](std::size_t, std::size_t) { return strength; });
  }
}

std::vector<std::string> symbol_words(const Item& item) {
  std::vector<std::string> words;
  for (const source::SourceFile* file : item.files) {
    const std::vector<std::string_view> names = file->symbols.names();
    for (std::size_t i = 0; i < std::min(names.size(), kMostSymbols); ++i) {
      for (std::string& word : words_of(names[i])) {
        if (word.size() >= kLeastWord) words.push_back(std::move(word));
      }
    }
  }
  std::sort(words.begin(), words.end());
  words.erase(std::unique(words.begin(), words.end()), words.end());
  return words;
}

// A file with many symbols shares a word with everyone, so a word counts by how many the two have.
void tie_symbols(const std::vector<Item>& items, std::vector<Tie>& ties) {
  std::unordered_map<std::string, Holders> by_word;
  for (std::size_t i = 0; i < items.size(); ++i) {
    for (std::string& word : symbol_words(items[i])) by_word[std::move(word)].push_back(i);
  }
  std::vector<std::int64_t> telling(items.size(), 0);  // how many of its words tell items apart
  for (const auto& [word, holders] : by_word) {
    if (!tells(holders.size(), items.size())) continue;
    for (const std::size_t item : holders) ++telling[item];
  }
  for (const auto& entry : by_word) {
    const Holders& holders = entry.second;
    tie_all(holders, items.size(), ties, [&](std::size_t a, std::size_t b) {
      return 2 * share_of(holders.size()) / std::max(telling[a], telling[b]);
    });
  }
}

}  // namespace

std::vector<Tie> affinity(const std::vector<Item>& items, ItemLinks links) {
  std::vector<Tie> ties;
  tie_links(std::move(links), items.size(), ties);
  tie_names(items, ties);
  tie_symbols(items, ties);
  return ties;
}

}  // namespace ossilar::workers::wiki
