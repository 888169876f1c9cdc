# Shell functions shared by the scripts in this directory; sourced, never run.
# shellcheck shell=bash

# The root of the source tree.
repository_root() {
    cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd
}

# say TEXT...: tells the reader what is going on, apart from a script's real output.
say() {
    printf '%s: %s\n' "${0##*/}" "$*" >&2
}

# die TEXT...: says what went wrong and gives up.
die() {
    say "error: $*"
    exit 1
}

# help_if_asked ARGUMENT...: what the script was given. If that begins with --help, prints the comment at
# the script's head and ends it.
help_if_asked() {
    if [[ ${1-} == -h || ${1-} == --help ]]; then
        sed -n '2,/^[^#]/{ s/^# \{0,1\}//p; }' "$0"
        exit
    fi
}

# expect_no_arguments ARGUMENT...: what the script was given, which is to be nothing.
expect_no_arguments() {
    (($# == 0)) || die "unexpected argument '$1'; see --help"
}

# quietly LOG COMMAND...: runs a command with its output in a file, and shows that only if it fails.
quietly() {
    local log=$1
    shift
    mkdir -p "$(dirname "$log")"
    if ! "$@" >"$log" 2>&1; then
        tail -n 60 "$log" >&2
        die "failed: $* (all of its output is in $log)"
    fi
}

# build_target DIRECTORY TARGET CMAKE-ARGUMENT...: configures and builds.
build_target() {
    local directory=$1 target=$2
    shift 2
    cmake "$@" && cmake --build "$directory" --target "$target"
}

# build_tree DIRECTORY CMAKE-ARGUMENT...: configures and builds everything.
build_tree() {
    local directory=$1
    shift
    build_target "$directory" all "$@"
}
