// What is remembered of the lines that a citation cites: enough to see later whether they are still there,
// where they went, and which of several equal blocks they are. It stands in a page's row and in its record
// (claims.h), so a clone that has neither the old text nor the commit can follow the citation too.
//
// Thread-safety: plain values and functions without state; any thread may use them. Nothing here fails.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "ossilar/source/source_index.h"
#include "ossilar/workers/wiki/citing/lines.h"

namespace ossilar::workers::wiki {

// Which version of a file was cited. Members that are not known are "".
struct FileVersion {
  std::string hash;    // the first 16 hexadecimal digits of the SHA-256 of its bytes
  std::string blob;    // what git calls this content
  std::string commit;  // the one that was checked out: the file may have differed from it
  bool operator==(const FileVersion&) const = default;
};

struct Fingerprint {
  // The first 16 hexadecimal digits of the SHA-256 of the lines, a line feed after each. "" when nobody knows
  // what was cited.
  std::string text;
  std::string bare;    // the same of without_formatting() of them
  std::string near;    // the first line and its neighbours; see Near
  std::string symbol;  // the function or type they lie in, with its scope: "ns::Class::member"; "" if none
  std::int64_t twins = 1;  // how often the block stood in the file
  FileVersion file;

  bool is_known() const { return !text.empty(); }
  bool operator==(const Fingerprint&) const = default;
};

// 64 bits of a SHA-256: they only have to tell the text cited from what stands there later, and each
// citation's digits are a part of the page file.
std::string short_hash(std::string_view text);

// FileVersion::hash of an indexed file as it is.
std::string version_hash(const source::SourceFile& file);

// The surroundings of a block, by hashes of 16 bits: "9c1f.07aa.^-52e1-aa07.1b3d.c011". The nearest three
// lines above that are not blank, nearest first; the block's first line; the nearest three below. `^` and `$`
// stand for the beginning and the end of the file.
struct Near {
  std::vector<std::string> above;
  std::string first;
  std::vector<std::string> below;

  static Near of(const LineText& text, LineRange range);
  // Of what text() gave; of any other text something that fits nothing.
  static Near of_text(const std::string& text);
  std::string text() const;
};

// How well two surroundings agree.
enum class Agreement {
  none,
  some,  // at least one line above and one below
  full   // at least two on each side, or up to the end of the file
};
Agreement agreement(const Near& a, const Near& b);

// The hash of one line as Near has it.
std::string line_hash(std::string_view line);

// The function or type that the lines lie in: the first that begins within them, else the last that begins
// above them. The end of a symbol is not known, so lines after a function count to it.
std::string symbol_at(const std::vector<source::Symbol>& symbols, LineRange range);

// The scope and the name of a symbol, joined as symbol_at() does.
std::string full_name(const source::Symbol& symbol);

// `range` lies in `text`, the file's text of the version `file`.
Fingerprint fingerprint_of(const LineText& text, LineRange range, std::string symbol, FileVersion file);

}  // namespace ossilar::workers::wiki
