#!/usr/bin/env bash
# apt-get for another architecture than this machine's, apart from this machine's own: lists, archives and
# what it takes for installed (nothing) are in DIRECTORY, which is made when it is missing. Needs no root.
#   cmake/foreign-apt.sh ARCHITECTURE DIRECTORY ARGUMENT...
set -euo pipefail
architecture=$1
apt=$(realpath -m "$2")
shift 2
foreign_apt() {
    apt-get -q -o "APT::Architecture=$architecture" -o "APT::Architectures=$architecture" -o "Dir::State=$apt" \
        -o "Dir::State::status=$apt/status" -o "Dir::Cache=$apt/cache" -o "Dir::Etc::sourcelist=$apt/sources.list" \
        -o Dir::Etc::sourceparts=/dev/null -o APT::Sandbox::User=root "$@"
}

if [ ! -e "$apt/updated" ]; then
    mkdir -p "$apt"/lists/partial "$apt"/cache/archives/partial
    : >"$apt/status"
    "$(dirname "$0")/debian-sources.sh" >"$apt/sources.list"
    foreign_apt update
    : >"$apt/updated"
fi
foreign_apt "$@"
