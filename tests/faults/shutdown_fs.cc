// shutdown_fs FOLDER keep|drop: cuts the power of the ext4 file system that FOLDER lies in. Nothing more of
// it reaches the disk; it has to be unmounted and mounted again. "drop" loses what its journal has not yet
// written, "keep" writes the journal first, so that names are there whose data is not.
#include <fcntl.h>
#include <sys/ioctl.h>

#include <cstdint>
#include <cstdio>
#include <string_view>

// Of the kernel's fs/ext4/ext4.h, which no header for programs has.
constexpr auto kShutdown = _IOR('X', 125, std::uint32_t);
constexpr std::uint32_t kWriteJournal = 0x1;
constexpr std::uint32_t kDropJournal = 0x2;

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  std::uint32_t flags = std::string_view(argv[2]) == "keep" ? kWriteJournal : kDropJournal;
  const int folder = open(argv[1], O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (folder < 0 || ioctl(folder, kShutdown, &flags) != 0) {
    std::perror(argv[1]);
    return 1;
  }
  return 0;
}
