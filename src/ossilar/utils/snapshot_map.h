// An ordered map from strings to shared, immutable values. Copies are snapshots: they can be handed out while
// the original changes. Rows and digests of a wiki (store/repository.h) and its titles (workers/wiki/host)
// are such maps; each draft reads its own copy.
//
// A copy costs one reference count and never changes, whatever is done to the original. With a std::map every
// save would copy the whole wiki, or hold a lock while it reads. Here entries lie in sorted blocks, and a
// change copies one block and the list of blocks: O(sqrt n) of n entries. Copies share the blocks that they
// have in common, so their difference is found without looking at the rest.
//
// Thread-safety: that of a value. Different copies may be read and changed on different threads; one instance
// may be read by several threads as long as none changes it. Failure: a change throws only for want of
// memory; size() may be wrong after that, so the map is to be dropped, while its copies are as they were.
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

  // The value under `key`, or null. It is valid until this map loses it or is destroyed; a copy of the
  // map keeps it longer.
  const V* find(std::string_view key) const { return share(key).get(); }

  // The same, shared: it outlives the map.
  Value share(std::string_view key) const {
    const std::size_t at = block_for(key);
    if (at == blocks_->size()) return nullptr;
    const Block& block = *(*blocks_)[at];
    const auto found = lower_bound(block, key);
    return found != block.end() && found->first == key ? found->second : nullptr;
  }

  // Sets the value under `key`, new or not. A value that is shared with another map counts as unchanged for
  // for_each_difference().
  void set(std::string key, V value) { set(std::move(key), std::make_shared<const V>(std::move(value))); }

  void set(std::string key, Value value) {
    Blocks blocks = *blocks_;
    // A key beyond all others goes into the last block.
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

  // Removes the entry; false when there is none. Blocks that become small are not joined: that costs memory
  // after many removals, and a wiki loses few pages.
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

  // How many keys come before `key`. Takes time in the number of blocks.
  std::size_t rank(std::string_view key) const {
    const std::size_t at = block_for(key);
    std::size_t before = 0;
    for (std::size_t i = 0; i < at; ++i) before += (*blocks_)[i]->size();
    if (at == blocks_->size()) return before;
    return before + index(*(*blocks_)[at], lower_bound(*(*blocks_)[at], key));
  }

  // The first key that does not come before `key`, or null. Valid until this map is changed or destroyed.
  const std::string* first_from(std::string_view key) const {
    const std::size_t at = block_for(key);
    return at == blocks_->size() ? nullptr : &lower_bound(*(*blocks_)[at], key)->first;
  }

  // The last key that comes before `key`, or null; valid as that of first_from().
  const std::string* last_below(std::string_view key) const {
    const std::size_t at = block_for(key);
    if (at < blocks_->size()) {
      const Block& block = *(*blocks_)[at];
      if (const auto place = lower_bound(block, key); place != block.begin()) return &std::prev(place)->first;
    }
    return at == 0 ? nullptr : &(*blocks_)[at - 1]->back().first;
  }

  // All keys in order.
  std::vector<std::string> keys() const {
    std::vector<std::string> out;
    out.reserve(size_);
    for_each([&](const std::string& key, const V&) { out.push_back(key); });
    return out;
  }

  // Calls `visit(key, before, after)`, in the order of the keys, for every key whose value is not the same
  // object in both maps; null for the map that lacks the key. Takes time in the entries of the blocks that
  // the maps do not share, plus n log n in the number of blocks.
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
  // Invariants: no block is empty, so each has a last key; keys ascend within a block and from block to
  // block. A block that several maps share is never changed.
  using Block = std::vector<Entry>;
  using Blocks = std::vector<std::shared_ptr<const Block>>;
  // Entries in a block at most; full blocks are halved. Near the square root of 10,000, the pages of a large
  // wiki, so that block and list of blocks are about equally long.
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

  // Puts the changed block in the place of the one at `at`, as two if it grew too long.
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

  // The entries of the blocks that `other` does not have, in order. Blocks are compared by address: equal
  // ones made separately only cost time, as for_each_difference() compares the values again.
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
