# shellcheck shell=bash
# What the checks of the tree share; they source it. A check defines
#
#   check_files      reports what is wrong in the current directory, the root of a tree, whose files "files" lists
#   make_good_tree   fills the current directory with a small tree that passes
#   self_test        calls expect for each thing that the check is there to find
#
# and then calls main: "CHECK [DIR]" checks the tree at DIR, or this one; "CHECK --self-test" checks the check itself.
set -euo pipefail
export LC_ALL=C

here=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")" >/dev/null && pwd -P)
files= # one a line
errors=0
unexpected=0

report() { # FILE LINE TEXT
  printf '%s:%s: %s\n' "$1" "$2" "$3"
  errors=$((errors + 1))
}

check_tree() { # DIR
  cd -- "$1"
  # An empty list means that nothing was checked, which must not pass.
  files=$("$here/list-files" -C "$1") && [[ $files ]] || return 1
  check_files
  [[ $errors == 0 ]]
}

# The check of a good tree with one file changed must print one line that starts so and fail; or, as "passes", print
# nothing and succeed.
expect() { # START [FILE FORMAT ARGUMENT...], the file's text as printf takes it
  local expected=$1 actual
  actual=$(
    tree=$(mktemp -d)
    trap 'rm -rf "$tree"' EXIT
    cd -- "$tree"
    make_good_tree
    # shellcheck disable=SC2059 # the text is a format on purpose
    if (($# > 1)); then mkdir -p "$(dirname "$2")" && printf "${@:3}" >"$2"; fi
    if check_tree "$tree"; then echo passes; fi
  )
  if [[ $actual != "$expected"* || $actual == *$'\n'* ]]; then
    printf 'self-test: expected "%s", got "%s"\n' "$expected" "$actual" >&2
    unexpected=$((unexpected + 1))
  fi
}

main() { # [DIR | --self-test]
  if [[ ${1:-} == --self-test ]]; then
    self_test
    [[ $unexpected == 0 ]]
  else
    check_tree "$(cd -- "${1:-$here/..}" >/dev/null && pwd -P)"
  fi
}
