#include "ossilar/cli/progress.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <string>

namespace ossilar::cli {
namespace {
constexpr std::size_t kBarWidth = 30;
}

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
