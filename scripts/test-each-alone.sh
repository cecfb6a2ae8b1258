#!/usr/bin/env bash
# Runs every test function of every Qt Test suite of build/ alone: one process per function,
# on its own session bus, with the command and environment CTest gives the suite. Other
# tests (scripts, fuzzers) run once as they are. Each suite also runs once with its functions
# in reverse order. Prints each failure and a summary; fails
# when any function fails alone.
#   scripts/test-each-alone.sh [-j JOBS] [SUITE-REGEX]
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=2
if [[ ${1:-} == -j ]]; then jobs=$2; shift 2; fi
ctest --preset default --show-only=json-v1 >build/ctest-tests.json
exec python3 - "$jobs" "${1:-.}" <<'PY'
import concurrent.futures, json, os, re, signal, subprocess, sys, time

jobs, pattern = int(sys.argv[1]), re.compile(sys.argv[2])
runs = []  # (label, command, environment, timeout)
for test in json.load(open("build/ctest-tests.json"))["tests"]:
    if not pattern.search(test["name"]) or not test.get("command"):
        continue
    props = {p["name"]: p["value"] for p in test.get("properties", [])}
    env = dict(os.environ)
    for entry in props.get("ENVIRONMENT", []):
        key, _, value = entry.partition("=")
        if key:
            env[key] = value
    command, timeout = test["command"], float(props.get("TIMEOUT", 300))
    env["PWD"] = props.get("WORKING_DIRECTORY", "build")
    exe = command[-1]
    if not os.path.basename(exe).startswith("tst_"):
        runs.append((test["name"], command, env, timeout))
        continue
    # The suite's own functions, asked of the binary itself.
    listed = subprocess.run(command + ["-functions"], env=env, capture_output=True, text=True, timeout=60)
    functions = [line[:-2] for line in listed.stdout.split() if line.endswith("()")]
    if listed.returncode != 0 or not functions:
        runs.append((test["name"] + " -functions", command + ["-functions"], env, 60))
    runs += [(f"{test['name']}::{fn}", command + [fn], env, timeout) for fn in functions]
    if len(functions) > 1:  # and all of them once in reverse order
        runs.append((f"{test['name']} (reversed)", command + functions[::-1], env, timeout))

def run(item):
    label, command, env, timeout = item
    # A group of its own, so a run that times out ends with everything it started.
    process = subprocess.Popen(command, env=env, cwd=env["PWD"], stdout=subprocess.PIPE,
                               stderr=subprocess.STDOUT, text=True, start_new_session=True)
    try:
        output = process.communicate(timeout=timeout)[0]
        return label, process.returncode == 0, output
    except subprocess.TimeoutExpired:
        os.killpg(process.pid, signal.SIGKILL)
        return label, False, process.communicate()[0] + f"\ntimed out after {timeout:.0f} s"

start, failed = time.monotonic(), []
with concurrent.futures.ThreadPoolExecutor(jobs) as pool:
    for label, ok, output in pool.map(run, runs):
        print(("ok    " if ok else "FAIL  ") + label, flush=True)
        if not ok:
            failed.append(label)
            print("\n".join("      " + l for l in output.splitlines()[-25:]), flush=True)
minutes, seconds = divmod(int(time.monotonic() - start), 60)
print(f"\n{len(runs) - len(failed)} of {len(runs)} passed alone in {minutes} min {seconds} s")
for label in failed:
    print("failed alone: " + label)
sys.exit(1 if failed else 0)
PY
