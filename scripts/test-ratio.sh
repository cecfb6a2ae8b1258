#!/usr/bin/env bash
# Prints the lines of test code (.cpp .h .sh .py under tests/, as tracked by git), of product
# code (.cpp .h under src/) and their ratio; fails when it is above 0.40.
set -euo pipefail
cd "$(dirname "$0")/.."
count() { git ls-files -z -- "$@" | xargs -0 -r cat | wc -l; }
tests=$(count 'tests/*.cpp' 'tests/*.h' 'tests/*.sh' 'tests/*.py')
product=$(count 'src/*.cpp' 'src/*.h')
echo "test code:    $tests lines"
echo "product code: $product lines"
# Fails above the limit, so CI stops there.
awk -v t="$tests" -v p="$product" 'BEGIN { r = p ? t / p : 0; printf "ratio:        %.3f (at most 0.400)\n", r; exit r > 0.4 }'
