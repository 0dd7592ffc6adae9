// Each step draws the line anew: a carriage return, and the escape that erases to the end of the line
// (ECMA-48 EL), as a shorter text would leave the end of a longer one. A file or pipe gets nothing, since it
// would keep every step.
#include "ossilar/cli/progress.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <string>

namespace ossilar::cli {
namespace {
// In columns: with its label and two counts of six digits the line fits into 80.
constexpr std::size_t kBarWidth = 30;
}  // namespace

ProgressBar::ProgressBar(const char* label) : label_(label), terminal_(isatty(STDERR_FILENO) == 1) {}

ProgressBar::~ProgressBar() {
  if (drawn_) std::fputs("\r\x1b[K", stderr);
}

utils::Progress ProgressBar::callback() {
  return [this](std::size_t done, std::size_t total) { draw(done, total); };
}

void ProgressBar::draw(std::size_t done, std::size_t total) {
  if (!terminal_ || total == 0) return;
  const std::size_t filled = kBarWidth * std::min(done, total) / total;
  const std::string bar = std::string(filled, '#') + std::string(kBarWidth - filled, '.');
  std::fprintf(stderr, "\r\x1b[K%s [%s] %zu/%zu", label_, bar.c_str(), done, total);
  drawn_ = true;
}

}  // namespace ossilar::cli
