#include "ossilar/source/text_spill.h"

#include <fcntl.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>

#include "ossilar/utils/error.h"

namespace ossilar::source {
namespace {

// Nothing is ever taken out. A text that would make the file longer stays in memory.
constexpr std::uint64_t kLongest = std::uint64_t{1} << 30U;

}  // namespace

TextSpill::TextSpill(const std::filesystem::path& folder)
    : file_(open(folder.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC | O_NOFOLLOW, 0600)) {}

std::optional<TextSpill::Piece> TextSpill::add(std::string_view text) {
  const std::lock_guard lock(adding_);
  if (!file_ || text.size() > kLongest - end_) return std::nullopt;
  // What a write cut short has put there is written over by the next.
  const ssize_t written = pwrite(file_.get(), text.data(), text.size(), static_cast<off_t>(end_));
  if (written < 0 || static_cast<std::size_t>(written) != text.size()) return std::nullopt;
  const Piece piece{end_, static_cast<std::uint32_t>(text.size())};
  end_ += text.size();
  return piece;
}

std::string TextSpill::read(const Piece& piece) const {
  std::string text(piece.size, '\0');
  std::size_t done = 0;
  while (done < text.size()) {
    const ssize_t got =
        pread(file_.get(), text.data() + done, text.size() - done, static_cast<off_t>(piece.offset + done));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) throw utils::IoError("cannot read the symbols of a file back", got < 0 ? errno : EIO);
    done += static_cast<std::size_t>(got);
  }
  return text;
}

}  // namespace ossilar::source
