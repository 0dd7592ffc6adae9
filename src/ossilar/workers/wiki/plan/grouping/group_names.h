// Names groups of files after what is in them.
//
// Thread-safety: immutable once made. It does not fail.
#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "ossilar/workers/wiki/plan/grouping/affinity.h"

namespace ossilar::workers::wiki {

struct GroupName {
  std::string
      label;         // "parser*" for what most names begin with, or else up to three names, the telling first
  std::string slug;  // "parser", or the first of the names: for a page id, still to be made valid
};

// Names the groups of one folder. Lifetime: refers to `items` and `ties`.
class GroupNames {
 public:
  GroupNames(const std::vector<Item>& items, const std::vector<Tie>& ties);

  // Of the group of these places in `items`; not empty.
  GroupName of(const std::vector<std::size_t>& places) const;
  // Never by a common part: for a group that comes second to a name.
  GroupName after_items(const std::vector<std::size_t>& places) const;

 private:
  using Counts = std::map<std::string, std::size_t, std::less<>>;

  std::string_view shortened(std::string_view name) const;
  std::string common_part(const std::vector<std::size_t>& places) const;
  std::vector<std::size_t> telling(const std::vector<std::size_t>& places) const;

  const std::vector<Item>& items_;
  const std::vector<Tie>& ties_;
  Counts everywhere_;      // how many of the folder's names begin with this, in whole words
  std::string everyones_;  // what nearly all names of the folder begin with, and so none needs to say
};

}  // namespace ossilar::workers::wiki
