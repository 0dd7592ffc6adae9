// The document of `ossilar affected` as forges take it, to show beside the changed lines what a page says of
// them.
//
// Thread-safety: no state, any thread may call. Nothing here fails.
#pragma once

#include <string>

#include "ossilar/utils/json.h"

namespace ossilar::cli {

// `wiki_dir` is the wiki's directory, relative to the repository's root. A claim is shown at the changed
// lines, or at its sentence where nobody can say which they are.
//
// GitHub's workflow commands, one a line
// (docs.github.com/actions/reference/workflow-commands-for-github-actions).
std::string github_annotations(const Map& affected, const std::string& wiki_dir);

// GitLab's Code Quality report, a JSON document (docs.gitlab.com/ci/testing/code_quality).
std::string gitlab_annotations(const Map& affected, const std::string& wiki_dir);

}  // namespace ossilar::cli
