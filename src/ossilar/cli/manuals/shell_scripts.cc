// All three hand the words over without the quotes that the shell keeps around them, the last as far as it is
// typed, and print nothing when the program fails: an error in the middle of a line that somebody types is
// worse than no completion. `command`: a function or an alias of the program's name is not asked.
#include "ossilar/cli/manuals/shell_scripts.h"

namespace ossilar::cli {
namespace {

// A candidate is quoted as bash wants it, unless the user has opened a quote already. Names of files are left
// to readline (-o default), which knows about ~ and quotes.
constexpr std::string_view kBash =
    R"(# Completion of ossilar in bash. Without a package: source <(ossilar completion bash)
_ossilar_plain() {
  case $1 in
    \"*) REPLY=${1#\"} REPLY=${REPLY%\"} ;;
    \'*) REPLY=${1#\'} REPLY=${REPLY%\'} ;;
    *) REPLY=${1//\\/} ;;
  esac
}

_ossilar() {
  local word line typed=${COMP_WORDS[COMP_CWORD]} program=${COMP_WORDS[0]/#\~/$HOME} REPLY
  local -a words=() lines=()
  for word in "${COMP_WORDS[@]:1:COMP_CWORD}"; do
    _ossilar_plain "$word"
    words+=("$REPLY")
  done
  mapfile -t lines < <(command -- "$program" complete -- "${words[@]}" 2>/dev/null)
  COMPREPLY=()
  case ${lines[0]-} in
    files) compopt -o default ;;
    folders) compopt -o dirnames ;;
    words)
      for line in "${lines[@]:1}"; do
        word=${line%%$'\t'*}
        [[ $typed == [\"\']* ]] || printf -v word %q "$word"
        COMPREPLY+=("$word")
      done
      ;;
  esac
}

complete -F _ossilar ossilar
)";

constexpr std::string_view kZsh = R"(#compdef ossilar
# Completion of ossilar in zsh. Without a package: source <(ossilar completion zsh)
_ossilar() {
  local line
  local -a lines described
  lines=("${(@f)$(command "${(Q)words[1]}" complete -- "${(@Q)words[2,CURRENT-1]}" "${(Q)PREFIX}" 2>/dev/null)}")
  case $lines[1] in
    files) _files ;;
    folders) _files -/ ;;
    words)
      for line in "${(@)lines[2,-1]}"; do
        described+=("${${line%%$'\t'*}//:/\\:}")
        [[ $line != *$'\t'* ]] || described[-1]+=":${line#*$'\t'}"
      done
      _describe ossilar described
      ;;
  esac
}

if [[ $funcstack[1] == _ossilar ]]; then
  _ossilar "$@"
else
  compdef _ossilar ossilar
fi
)";

constexpr std::string_view kFish =
    R"(# Completion of ossilar in fish. Without a package: ossilar completion fish | source
function __ossilar_complete
    set -l words (commandline -opc)
    set -l program $words[1]
    set -e words[1]
    set -l typed (string trim --left --chars '"\'' -- (commandline -ct))
    set -l lines (command $program complete -- $words "$typed" 2>/dev/null)
    switch "$lines[1]"
        case files
            __fish_complete_path "$typed"
        case folders
            __fish_complete_directories "$typed"
        case words
            set -e lines[1]
            string join \n -- $lines
    end
end

complete -c ossilar -f -a '(__ossilar_complete)'
)";

}  // namespace

const std::array<Shell, 3>& shells() {
  static constexpr std::array<Shell, 3> kShells{{
      {"bash", kBash, "share/bash-completion/completions/ossilar"},
      {"zsh", kZsh, "share/zsh/vendor-completions/_ossilar"},
      {"fish", kFish, "share/fish/vendor_completions.d/ossilar.fish"},
  }};
  return kShells;
}

}  // namespace ossilar::cli
