#pragma once

#include "ossilar/utils/task.h"

namespace ossilar::cli {

// A progress bar on standard error, drawn only where that is a terminal and gone at its end. `label` says
// what is counted: "indexing".
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
