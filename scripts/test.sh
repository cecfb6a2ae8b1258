#!/usr/bin/env bash
# Installs what is needed, builds, and runs every test (each on its own private session bus).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
scripts/build.sh
ctest --preset default "$@"
