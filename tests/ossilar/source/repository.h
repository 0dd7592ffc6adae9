// A folder that shell scripts fill.
#pragma once

#include <stdexcept>
#include <string>

#include "ossilar/utils/process.h"
#include "support/temp_dir.h"

namespace ossilar::testing {

class Repository : public TempDir {
 public:
  // Runs `script` in the folder; git has no settings but a user and the branch `main`, whoever runs the
  // tests. `commit FOLDER` commits all that is in a repository.
  void run(const std::string& script) const {
    static const std::string prelude = R"(cd "$0"; unset GIT_DIR GIT_INDEX_FILE GIT_WORK_TREE
      export GIT_CONFIG_GLOBAL=/dev/null GIT_CONFIG_SYSTEM=/dev/null GIT_CONFIG_COUNT=3
      export GIT_CONFIG_KEY_0=init.defaultBranch GIT_CONFIG_VALUE_0=main
      export GIT_CONFIG_KEY_1=user.name GIT_CONFIG_VALUE_1=a GIT_CONFIG_KEY_2=user.email GIT_CONFIG_VALUE_2=a@b
      commit() { git -C "$1" add -A; git -C "$1" commit -q --allow-empty -m m; }
      )";
    const auto result = utils::run_process({"sh", "-ec", prelude + script, path().string()}, "");
    if (result.exit_code != 0) throw std::runtime_error(script + ": " + result.errors);
  }
};

}  // namespace ossilar::testing
