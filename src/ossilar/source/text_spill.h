// Texts that are many and seldom asked for, kept in a file without a name instead of in memory.
#pragma once

#include <cstdint>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "ossilar/utils/files.h"

namespace ossilar::source {

// Thread-safety: every member may be called from any thread.
class TextSpill {
 public:
  // The file lies in `folder`, on its file system, and goes with the object, however the process ends.
  // Without the folder, or where its file system has no files without a name, it keeps nothing.
  explicit TextSpill(const std::filesystem::path& folder);

  struct Piece {
    std::uint64_t offset = 0;
    std::uint32_t size = 0;
  };

  // Where the text is from now on; none when it could not be kept.
  std::optional<Piece> add(std::string_view text);

  // The text that add() put there. Throws utils::IoError.
  std::string read(const Piece& piece) const;

 private:
  utils::UniqueFd file_;
  std::mutex adding_;
  std::uint64_t end_ = 0;  // guarded by adding_
};

}  // namespace ossilar::source
