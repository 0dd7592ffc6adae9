// How the lists of a large wiki are divided, so that a save rewrites a part and not the whole.
//
// The pages' ids are a tree by their beginnings. A part that would list more than kMostTogether pages is
// divided by the next character of their ids, and each part below is named by the longest beginning that all
// of its pages share: "src/core/" and "src/net/", mostly. Groups of few stay where they are. The division
// follows from the set of ids alone: two clones with the same pages have the same parts, so git can merge
// them.
//
// Used by list_files.cc and manifest.cc. Pure functions over a snapshot of the rows: any thread may call
// them, and they do not fail.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "ossilar/store/repository.h"

namespace ossilar::workers::wiki {

// A save rewrites one part, so a part should cost about as much as the page itself. A smaller limit would
// spread the wiki over more files, which readers open one by one.
inline constexpr std::size_t kMostTogether = 128;
// Fewer pages than this are not worth a file of their own. There are 40 characters that ids consist of,
// so a part that is divided lists at most 40 groups of 7 itself, and the page whose id is the prefix.
inline constexpr std::size_t kFewestApart = 8;

struct ListPart {
  std::string prefix;              // what the ids of all its pages begin with; "" for the whole wiki
  std::vector<std::string> pages;  // the ids that this part lists itself, in order
  std::vector<std::string> parts;  // the prefixes of the parts right below it, in order
};

// The part of this prefix. Time grows with what it lists and with the square root of the number of all pages,
// so a save in a large wiki does not walk all rows.
ListPart list_part(const store::StoredRows& rows, const std::string& prefix);

// The parts from the whole wiki down to the one that lists `page_id`; never empty. The page must have a row.
std::vector<ListPart> parts_to(const store::StoredRows& rows, std::string_view page_id);

// All parts, each before those below it; the whole wiki first.
std::vector<ListPart> all_parts(const store::StoredRows& rows);

inline constexpr const char* kListsFolder = "lists";  // of the parts, in the wiki's root
inline constexpr const char* kIndexEnd = ".md";
inline constexpr const char* kManifestEnd = ".json";

// The file of the part with this prefix, relative to the wiki's root: "index.md" and "manifest.json" of the
// whole wiki, "lists/src+core+.md" of the part "src/core/". `end` is kIndexEnd or kManifestEnd.
std::string list_file(const std::string& prefix, const char* end);

}  // namespace ossilar::workers::wiki
