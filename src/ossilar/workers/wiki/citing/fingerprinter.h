// Takes fingerprints of the sources as they are: of the citations of one draft (host/orchestrator.cc), and of
// pages whose record says too little (check/adoption.cc).
//
// Thread-safety: one thread at a time. Failures: a file that cannot be read gives fingerprints that know
// nothing; what `read` throws passes.
#pragma once

#include <cstddef>
#include <map>
#include <memory>
#include <set>
#include <string>

#include "ossilar/source/source_index.h"
#include "ossilar/workers/wiki/citations.h"
#include "ossilar/workers/wiki/citing/fingerprint.h"

namespace ossilar::workers::wiki {

class Fingerprinter {
 public:
  // `commit` is the one that is checked out, "" for none. The index must outlive this.
  Fingerprinter(const source::SourceIndex& index, ReadText read, std::string commit);
  ~Fingerprinter();

  // Whether the lines hold a letter or a digit. Blank lines and braces are no evidence. True for a file that
  // cannot be read: nobody can say then.
  bool is_evidence(const Citation& citation);

  // Knows nothing where file or lines are not there, and beyond so much text of one page that no author cites
  // it.
  Fingerprint take(const Citation& citation);

  // The labels of the citations that take() knows nothing of because their file cannot be read.
  const std::set<std::string>& unread() const { return unread_; }

  // The whole files that fingerprints were taken of, by FileVersion::hash.
  std::map<std::string, std::string> texts() const;

 private:
  struct File;
  const File* file(const std::string& path);

  const source::SourceIndex& index_;
  const ReadText read_;
  const std::string commit_;
  std::map<std::string, std::unique_ptr<File>> files_;  // by path; null for one that cannot be read
  std::set<std::string> unread_;
  std::size_t looked_at_ = 0;  // bytes
};

}  // namespace ossilar::workers::wiki
