// An ordered map from strings to shared, immutable values, made to be handed out as snapshots while it
// changes.
//
// A copy costs one reference count and never changes, whatever is done to the original. Setting or erasing an
// entry of n copies O(sqrt n): entries lie in sorted blocks, and only the block concerned and the list of
// blocks are made anew. Two copies share what they have in common, which makes finding their difference cheap
// too.
//
// Thread-safety: like a value: a copy may be read from any thread; changing one instance needs that instance
// alone.
#pragma once

#include <algorithm>
#include <cstddef>
#include <initializer_list>
#include <iterator>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace ossilar::utils {

template <class V>
class SnapshotMap {
 public:
  using Value = std::shared_ptr<const V>;
  using Entry = std::pair<std::string, Value>;

  SnapshotMap() : blocks_(std::make_shared<const Blocks>()) {}
  SnapshotMap(std::initializer_list<std::pair<std::string, V>> entries) : SnapshotMap() {
    for (const auto& [key, value] : entries) set(key, value);
  }

  std::size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }

  // The value under `key`, or null. It lives at least as long as this map keeps it unchanged.
  const V* find(std::string_view key) const { return share(key).get(); }

  // The value under `key` as an owner, or null.
  Value share(std::string_view key) const {
    const std::size_t at = block_for(key);
    if (at == blocks_->size()) return nullptr;
    const Block& block = *(*blocks_)[at];
    const auto found = lower_bound(block, key);
    return found != block.end() && found->first == key ? found->second : nullptr;
  }

  void set(std::string key, V value) { set(std::move(key), std::make_shared<const V>(std::move(value))); }

  void set(std::string key, Value value) {
    Blocks blocks = *blocks_;
    const std::size_t at = std::min(block_for(key), blocks.empty() ? 0 : blocks.size() - 1);
    Block block = blocks.empty() ? Block{} : *blocks[at];
    const auto place = lower_bound(block, key);
    if (place != block.end() && place->first == key) {
      block[index(block, place)].second = std::move(value);
    } else {
      block.insert(place, Entry(std::move(key), std::move(value)));
      ++size_;
    }
    put_back(blocks, at, std::move(block));
    blocks_ = std::make_shared<const Blocks>(std::move(blocks));
  }

  bool erase(std::string_view key) {
    if (find(key) == nullptr) return false;
    Blocks blocks = *blocks_;
    const std::size_t at = block_for(key);
    Block block = *blocks[at];
    block.erase(lower_bound(block, key));
    if (block.empty()) {
      blocks.erase(blocks.begin() + static_cast<std::ptrdiff_t>(at));
    } else {
      blocks[at] = std::make_shared<const Block>(std::move(block));
    }
    blocks_ = std::make_shared<const Blocks>(std::move(blocks));
    --size_;
    return true;
  }

  // Calls `visit(key, value)` for every entry in the order of the keys' bytes.
  template <class Visit>
  void for_each(Visit visit) const {
    for (const auto& block : *blocks_) {
      for (const auto& [key, value] : *block) visit(key, *value);
    }
  }

  // The same for the entries whose keys begin with `prefix`.
  template <class Visit>
  void for_each_below(std::string_view prefix, Visit visit) const {
    for (std::size_t at = block_for(prefix); at < blocks_->size(); ++at) {
      const Block& block = *(*blocks_)[at];
      for (auto entry = lower_bound(block, prefix); entry != block.end(); ++entry) {
        if (!entry->first.starts_with(prefix)) return;
        visit(entry->first, *entry->second);
      }
    }
  }

  // The number of keys below `key` in their order. Costs the number of blocks.
  std::size_t rank(std::string_view key) const {
    const std::size_t at = block_for(key);
    std::size_t before = 0;
    for (std::size_t i = 0; i < at; ++i) before += (*blocks_)[i]->size();
    if (at == blocks_->size()) return before;
    return before + index(*(*blocks_)[at], lower_bound(*(*blocks_)[at], key));
  }

  // The first key that is not below `key`, or null. Valid as long as this map keeps it unchanged.
  const std::string* first_from(std::string_view key) const {
    const std::size_t at = block_for(key);
    return at == blocks_->size() ? nullptr : &lower_bound(*(*blocks_)[at], key)->first;
  }

  // The last key that is below `key`, or null; as first_from().
  const std::string* last_below(std::string_view key) const {
    const std::size_t at = block_for(key);
    if (at < blocks_->size()) {
      const Block& block = *(*blocks_)[at];
      if (const auto place = lower_bound(block, key); place != block.begin()) return &std::prev(place)->first;
    }
    return at == 0 ? nullptr : &(*blocks_)[at - 1]->back().first;
  }

  std::vector<std::string> keys() const {
    std::vector<std::string> out;
    out.reserve(size_);
    for_each([&](const std::string& key, const V&) { out.push_back(key); });
    return out;
  }

  // Calls `visit(key, before, after)` for every key whose value is not the same object in both maps; the side
  // that lacks the key gives null. Costs what differs plus the number of blocks.
  template <class Visit>
  friend void for_each_difference(const SnapshotMap& before, const SnapshotMap& after, Visit visit) {
    if (before.blocks_ == after.blocks_) return;
    const std::vector<const Entry*> left = before.not_shared_with(after);
    const std::vector<const Entry*> right = after.not_shared_with(before);
    auto l = left.begin();
    auto r = right.begin();
    while (l != left.end() || r != right.end()) {
      const int order = l == left.end() ? 1 : r == right.end() ? -1 : (*l)->first.compare((*r)->first);
      const V* old_value = order <= 0 ? (*l)->second.get() : nullptr;
      const V* new_value = order >= 0 ? (*r)->second.get() : nullptr;
      if (old_value != new_value) visit(order <= 0 ? (*l)->first : (*r)->first, old_value, new_value);
      if (order <= 0) ++l;
      if (order >= 0) ++r;
    }
  }

 private:
  using Block = std::vector<Entry>;
  using Blocks = std::vector<std::shared_ptr<const Block>>;
  // Near the square root of 10,000 entries, the size that a large wiki has.
  static constexpr std::size_t kMaxBlock = 128;

  static typename Block::const_iterator lower_bound(const Block& block, std::string_view key) {
    return std::lower_bound(block.begin(), block.end(), key,
                            [](const Entry& entry, std::string_view k) { return entry.first < k; });
  }

  static std::size_t index(const Block& block, typename Block::const_iterator place) {
    return static_cast<std::size_t>(std::distance(block.begin(), place));
  }

  // The first block whose last key is not below `key`, or the number of blocks.
  std::size_t block_for(std::string_view key) const {
    const auto found =
        std::lower_bound(blocks_->begin(), blocks_->end(), key,
                         [](const auto& block, std::string_view k) { return block->back().first < k; });
    return static_cast<std::size_t>(std::distance(blocks_->begin(), found));
  }

  static void put_back(Blocks& blocks, std::size_t at, Block block) {
    if (blocks.empty()) blocks.emplace_back();
    if (block.size() > kMaxBlock) {
      const auto middle = block.begin() + static_cast<std::ptrdiff_t>(block.size() / 2);
      const auto place = blocks.begin() + static_cast<std::ptrdiff_t>(at) + 1;
      blocks.insert(place, std::make_shared<const Block>(middle, block.end()));
      block.erase(middle, block.end());
    }
    blocks[at] = std::make_shared<const Block>(std::move(block));
  }

  // The entries of the blocks that `other` does not hold as the same object.
  std::vector<const Entry*> not_shared_with(const SnapshotMap& other) const {
    std::vector<const Block*> theirs;
    for (const auto& block : *other.blocks_) theirs.push_back(block.get());
    std::sort(theirs.begin(), theirs.end());
    std::vector<const Entry*> out;
    for (const auto& block : *blocks_) {
      if (std::binary_search(theirs.begin(), theirs.end(), block.get())) continue;
      for (const Entry& entry : *block) out.push_back(&entry);
    }
    return out;
  }

  std::shared_ptr<const Blocks> blocks_;
  std::size_t size_ = 0;
};

}  // namespace ossilar::utils
