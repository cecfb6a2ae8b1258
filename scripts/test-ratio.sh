#!/usr/bin/env bash
# Prints the lines of test code (.cpp .h .sh .py under tests/, as tracked by git), of product
# code (.cpp .h under src/) and their ratio; the project keeps it at 0.40 or below.
set -euo pipefail
cd "$(dirname "$0")/.."
count() { git ls-files -z -- "$@" | xargs -0 -r cat | wc -l; }
tests=$(count 'tests/*.cpp' 'tests/*.h' 'tests/*.sh' 'tests/*.py')
product=$(count 'src/*.cpp' 'src/*.h')
echo "test code:    $tests lines"
echo "product code: $product lines"
awk -v t="$tests" -v p="$product" 'BEGIN { printf "ratio:        %.2f (at most 0.40)\n", p ? t / p : 0 }'
