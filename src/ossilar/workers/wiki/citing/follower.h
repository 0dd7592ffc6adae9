// Follows citations from what was cited to the sources as they are. page_state.cc asks for the state of each
// page, the save (host/orchestrator.cc) for what its author has to be told, asking/following.cc for the new
// lines.
//
// The rules are those of follow.h; here is where both versions of a file come from, and which file a file was
// renamed to.
//
// Thread-safety: one thread at a time. Failures: what the functions of CitedSources throw passes to the
// caller; a text that cannot be had is none.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "ossilar/source/git/git_objects.h"
#include "ossilar/source/source_index.h"
#include "ossilar/workers/wiki/citations.h"
#include "ossilar/workers/wiki/citing/fingerprint.h"
#include "ossilar/workers/wiki/citing/follow.h"

namespace ossilar::workers::wiki {

// Where the follower finds the texts of both sides.
struct CitedSources {
  const source::SourceIndex& index;  // the sources as they are; must outlive the follower
  ReadText read;                     // the text of an indexed file
  // The text of a file as it was cited; none when nobody has kept it.
  std::function<std::optional<std::string>(const FileVersion&)> past;
  // The files that a commit has; null when the commit is not known here. Valid as long as the follower.
  std::function<const source::CommitFiles*(const std::string& commit)> files_at;
};

struct Looked {
  CitationState state = CitationState::unknown;
  // Where the text is now; of a changed citation what stands in its place. None if nobody can say.
  std::optional<Citation> now;
  bool only_formatting = false;
};

class CitationFollower {
 public:
  explicit CitationFollower(CitedSources sources);
  CitationFollower(const CitationFollower&) = delete;
  CitationFollower& operator=(const CitationFollower&) = delete;
  ~CitationFollower();

  Looked look(const Citation& cited, const Fingerprint& print);

  // The cited lines as they were cited; none when the old text is not to be had.
  std::optional<std::string> cited_text(const Citation& cited, const Fingerprint& print);

  // The whole file as it was cited; none when it is not to be had.
  std::optional<std::string> past_text(const FileVersion& version);

  // How many lines of the file were removed or added since that version, if both texts are there.
  struct LineCounts {
    std::int64_t removed = 0, added = 0;
  };
  std::optional<LineCounts> changed_lines(const std::string& path, const FileVersion& version);

  // The file that `path`, which is gone, was renamed to since `version` of it; none if no file qualifies.
  std::optional<std::string> renamed_to(const std::string& path, const FileVersion& version);

 private:
  struct Texts;
  const LineText* past(const FileVersion& version);
  const LineText* now(const source::SourceFile& file);
  const Versions* versions(const source::SourceFile& file, const FileVersion& version);
  Looked look_in(const source::SourceFile& file, const Citation& cited, const Fingerprint& print);
  Looked look_elsewhere(const Citation& cited, const Fingerprint& print);
  std::vector<const source::SourceFile*> same_content(const FileVersion& version);
  std::vector<const source::SourceFile*> likely_names(const std::string& path,
                                                      const std::string& symbol) const;
  bool was_there(const std::string& path, const FileVersion& version) const;
  std::vector<const source::SourceFile*> possible_names(const std::string& path,
                                                        const FileVersion& version) const;
  std::optional<std::string> most_similar(const LineText& before,
                                          const std::vector<const source::SourceFile*>& files);
  std::optional<std::string> find_renamed(const std::string& path, const FileVersion& version);

  const CitedSources sources_;
  std::unique_ptr<Texts> texts_;  // what was read and compared, dropped where it takes too much memory
  std::optional<std::map<std::string, std::vector<const source::SourceFile*>>> by_content_;
  std::map<std::string, std::optional<std::string>> renames_;
};

// How much of one text is in another, as git measures it for renames (diffcore-delta.c): of the larger one's
// bytes the share that stand in lines of both. From 0 to 1.
double similarity(const LineText& a, const LineText& b);

}  // namespace ossilar::workers::wiki
