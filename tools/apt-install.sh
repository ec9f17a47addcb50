#!/usr/bin/env bash
# Installs the Debian packages named as arguments: with apt-get as root, or
# through sudo where it asks no password (as on CI runners); otherwise it
# says what to install and fails.
set -euo pipefail
[ $# -gt 0 ] || exit 0
if [ "$(id -u)" -eq 0 ]; then
  as_root=()
elif command -v sudo >/dev/null && sudo -n true 2>/dev/null; then
  as_root=(sudo -n)
else
  echo "Missing: $*. Install them (sudo apt-get install $*) and run again." >&2
  exit 1
fi
"${as_root[@]}" apt-get update -qq
"${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "$@"
