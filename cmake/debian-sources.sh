#!/usr/bin/env bash
# Prints the entries of this machine's package sources that are Debian's own, as lines of a sources.list; apt
# reads them for us, in whatever form they are written. Only the release itself, without the archives beside
# it (RELEASE-security, -updates, -backports): it is complete.
set -euo pipefail
keyring=/usr/share/keyrings/debian-archive-keyring.gpg
# shellcheck disable=SC2016  # apt's placeholders
apt-get indextargets --format '$(ORIGIN)|$(RELEASE)|deb [signed-by='"$keyring"'] $(REPO_URI) $(RELEASE) $(COMPONENT)' \
    'Created-By: Packages' | sed -n 's/^Debian|[^-|/]*|//p' | sort -u | grep . ||
    { echo "${0##*/}: this machine knows no package lists of Debian: run apt-get update" >&2; exit 1; }
