#include "ossilar/utils/process.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <cerrno>

#include "ossilar/utils/error.h"
#include "ossilar/utils/files.h"

namespace ossilar::utils {
namespace {

TEST(RunProcess, ReturnsOutputErrorsAndExitCode) {
  const UniqueFd leaky(open("/dev/null", O_RDONLY));  // without O_CLOEXEC, as other libraries open files
  const std::string probe = "[ -e /proc/self/fd/" + std::to_string(leaky.get()) + " ] && echo open; exit 0";
  std::string large;
  for (int i = 0; i < 200'000; ++i) large += std::to_string(i) + "\n";
  struct Row {
    const char* why;
    std::string script, input;
    int exit_code;
    std::string output;
    std::size_t errors;
  };
  const std::vector<Row> rows{
      {"both outputs", "echo out; echo err >&2", "", 0, "out\n", 4},
      {"exit code", "exit 7", "", 7, "", 0},
      {"signal", "kill -9 $$", "", 137, "", 0},
      {"closed outputs", "exec >&- 2>&-; exit 3", "", 3, "", 0},
      {"more than a pipe holds", "cat", large, 0, large, 0},
      {"full outputs before it reads", "head -c 300000 /dev/zero >&2; cat", large, 0, large, 65536},
      {"input that nobody reads", "exec <&-; echo done", large, 0, "done\n", 0},
      {"gone before its input", "exit 4", large, 4, "", 0},
      {"no other descriptor", probe, "", 0, "", 0},
  };
  for (const Row& row : rows) {
    const ProcessResult result = run_process({"sh", "-c", row.script}, row.input);
    EXPECT_EQ(result.exit_code, row.exit_code) << row.why;
    EXPECT_TRUE(result.output == row.output) << row.why << ": " << result.output.substr(0, 200);
    EXPECT_EQ(result.errors.size(), row.errors) << row.why;
  }
}

TEST(RunProcess, MissingProgram) {
  try {
    run_process({"ossilar-no-such-program"}, "");
    FAIL();
  } catch (const IoError& error) {
    EXPECT_EQ(error.error(), ENOENT);
  }
}

}  // namespace
}  // namespace ossilar::utils
