#!/usr/bin/env bash
# Builds the helper and runs every test.
set -euo pipefail
cd "$(dirname "$0")/.."
bash tools/deps.sh

cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j"$(nproc)"
(cd build && ctest --output-on-failure -j2)
