#!/usr/bin/env bash
# Fails when a C++ file under src/, tests/ or bench/ differs from what clang-format makes of
# it with the project's .clang-format; prints where.
set -euo pipefail
cd "$(dirname "$0")/.."
git ls-files -z -- 'src/*.cpp' 'src/*.h' 'tests/*.cpp' 'tests/*.h' 'bench/*.cpp' 'bench/*.h' |
    xargs -0 -r clang-format --dry-run --Werror
