#!/usr/bin/env bash
# Builds everything with clang's AddressSanitizer and UndefinedBehaviorSanitizer (build-asan/)
# and runs every test there, the fuzzers' short runs included. Extra arguments go to ctest.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake --preset asan -DVANTOR_WERROR="${VANTOR_WERROR:-OFF}" >/dev/null
cmake --build --preset asan
ctest --preset asan "$@"
