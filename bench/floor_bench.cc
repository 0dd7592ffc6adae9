// Prints what the floor under a save takes (see floor.h): the microseconds of each write as a JSON list.
//   floor_bench FOLDER COUNT
#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "floor.h"

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fputs("floor_bench FOLDER COUNT\n", stderr);
    return 2;
  }
  ossilar::bench::Floor floor(std::filesystem::absolute(argv[1]) / "floor");
  const auto count = static_cast<std::size_t>(std::strtoul(argv[2], nullptr, 10));
  for (std::size_t i = 0; i < count; ++i) std::printf("%s%.1f", i == 0 ? "[" : ",", floor.write(i));
  std::puts("]");
}
