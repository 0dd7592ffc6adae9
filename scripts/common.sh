# shellcheck shell=bash
# Sourced by scripts/* and .ci/run: strict mode, the project's root as current directory, and timed steps.
set -euo pipefail
script=$(realpath "$0")
cd "$(dirname "$(realpath "${BASH_SOURCE[0]}")")/.."

current_step=""
step_start=0

# step NAME COMMAND...: runs the command and prints what it took. A failing command ends the script, named.
step() {
  current_step=$1 step_start=$SECONDS
  shift
  echo "== $current_step"
  "$@"
  echo "== $current_step: $((SECONDS - step_start)) s"
  current_step=""
}

# build PRESET [BUILD OPTION...]: configures and builds a preset of CMakePresets.json, in build/PRESET.
build() {
  local preset=$1
  shift
  step "configure $preset" cmake --preset "$preset" --log-level=WARNING
  step "build $preset" cmake --build --preset "$preset" "$@"
}

# npm_install FOLDER: what the folder's package-lock.json lists, when that is newer than what is installed.
npm_install() {
  [[ $1/node_modules/.package-lock.json -nt $1/package-lock.json ]] ||
    npm ci --prefix "$1" --ignore-scripts --no-audit --no-fund --loglevel=error
}

# Whether we may mount file systems: root in a container seldom may.
can_mount() { unshare --mount true 2>/dev/null; }

die() {
  echo "$(basename "$script"): $1" >&2
  exit "${2:-1}"
}

# Prints the comment at the head of the running script, which is its usage.
usage() { sed -n '2,/^$/s/^# \{0,1\}//p' "$script"; }

# Not `command || report`: that would switch off "set -e" inside the functions that are run as steps.
report_failure() {
  local status=$?
  if [[ $status -ne 0 && -n $current_step ]]; then
    echo "== $current_step: failed after $((SECONDS - step_start)) s (exit status $status)" >&2
  fi
}
trap report_failure EXIT
