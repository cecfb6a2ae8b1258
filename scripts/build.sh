#!/usr/bin/env bash
# Configures and builds with the default preset (build/); VANTOR_WERROR=ON makes warnings errors.
set -euo pipefail
cd "$(dirname "$0")/.."
cmake --preset default -DVANTOR_WERROR="${VANTOR_WERROR:-OFF}" >/dev/null
cmake --build --preset default
