#!/usr/bin/env bash
# Installs the Debian packages named as arguments: with apt-get when root,
# otherwise it says what to install and fails.
set -euo pipefail
[ $# -gt 0 ] || exit 0
if [ "$(id -u)" -eq 0 ]; then
  apt-get update -qq
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "$@"
else
  echo "Missing: $*. Install them (sudo apt-get install $*) and run again." >&2
  exit 1
fi
