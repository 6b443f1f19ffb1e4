# What the scripts share; sourced by them from the top of the tree.
# shellcheck shell=bash

program=$(basename "$0")
current_step=start

# A directory to remove at the end, if the script sets it.
work=

# Whatever ends a script early says where it was.
on_exit() {
  local status=$?
  [ -z "$work" ] || rm -rf "$work"
  [ $status = 0 ] || printf '\n%s: FAILED at step: %s\n' "$program" "$current_step" >&2
}
trap on_exit EXIT

# step TEXT: announces what comes next.
step() {
  current_step=$1
  printf '\n==> %s\n' "$1"
}

die() {
  printf '%s: %s\n' "$program" "$1" >&2
  exit 1
}

# build PRESET [TARGET...]: configures and builds quietly, everything or these; the whole output when it
# fails.
build() {
  local preset=$1 log="build/$1.log"
  shift
  mkdir -p build
  if ! { cmake --preset "$preset" && cmake --build --preset "$preset" ${1+--target "$@"}; } >"$log" 2>&1; then
    cat "$log"
    exit 1
  fi
  ! grep -A1 'CMake Warning' "$log" || die "a part was left out, see above"
}
