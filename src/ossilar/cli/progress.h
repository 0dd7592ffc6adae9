// A progress bar for work that may take long: indexing, embedding, copying, exporting.
//
// Threads: one, as the callback is called by the thread that does the work (utils/task.h). A failed write is
// ignored.
#pragma once

#include "ossilar/utils/task.h"

namespace ossilar::cli {

// Drawn on standard error, only where that is a terminal, and erased by the destructor. `label` says what is
// counted, such as "indexing"; it must outlive the bar.
class ProgressBar {
 public:
  explicit ProgressBar(const char* label);
  ~ProgressBar();
  ProgressBar(const ProgressBar&) = delete;
  ProgressBar& operator=(const ProgressBar&) = delete;

  // A callback that draws; valid as long as the bar lives.
  utils::Progress callback();

 private:
  void draw(std::size_t done, std::size_t total);
  const char* label_;
  bool terminal_;
  bool drawn_ = false;
};

}  // namespace ossilar::cli
