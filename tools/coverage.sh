#!/usr/bin/env bash
# Line, branch and function coverage of ZV_FileShare and QB_Base by the whole
# suite. Builds the project in build-coverage/ (or the folder given) as a
# Debug build with gcov counters, runs every test, prints a summary per
# library and the functions that no test reached, and writes the report line
# by line to <folder>/coverage/index.html.
#
# Branches that only an exception takes (the compiler's path out of every
# call that may throw) and those the compiler marks unreachable are left
# out: they are not decisions of the code.
#
#     tools/coverage.sh [build-folder]
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build-coverage}
launcher=()
if command -v ccache >/dev/null; then
    launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_C_COMPILER_LAUNCHER=ccache)
fi
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Debug -DROOMCRATE_COVERAGE=ON -DROOMCRATE_BENCH=OFF "${launcher[@]}"
cmake --build "$build" -j2
find "$build" -name '*.gcda' -delete
ctest --test-dir "$build" -j2 --output-on-failure

out="$build/coverage"
mkdir -p "$out"
# A counter file names its sources relative to the folder it was compiled
# in (always so with ccache's base_dir), and gcovr takes them relative to
# --object-directory: so each compile folder is read on its own, and the
# parts are added up.
rm -f "$out"/part-*.json
n=0
for dir in $(find "$build" -name '*.gcda' | sed 's|/CMakeFiles/.*||' | sort -u); do
    n=$((n + 1))
    gcovr --root . --object-directory "$dir" --filter 'ZV_FileShare/' --filter 'QB_Base/' \
          --exclude-throw-branches --exclude-unreachable-branches --json "$out/part-$n.json" "$dir/CMakeFiles"
done
gcovr --add-tracefile "$out/part-*.json" --json "$out/coverage.json" --html-details "$out/index.html"
python3 - "$out/coverage.json" <<'PY'
import json, sys
files = json.load(open(sys.argv[1]))["files"]
for lib in ("ZV_FileShare", "QB_Base"):
    lines = [l for f in files if f["file"].startswith(lib + "/") for l in f["lines"] if not l.get("gcovr/noncode")]
    branches = [b for l in lines for b in l["branches"]]
    functions = [fn for f in files if f["file"].startswith(lib + "/") for fn in f.get("functions", [])]
    def share(items, hit):
        n = sum(1 for i in items if hit(i))
        return f"{100.0 * n / max(len(items), 1):.1f}% ({n} of {len(items)})"
    print(f"{lib:13} lines {share(lines, lambda l: l['count'] > 0)}, "
          f"branches {share(branches, lambda b: b['count'] > 0)}, "
          f"functions {share(functions, lambda fn: fn['execution_count'] > 0)}")
print("Functions no test reached:")
for f in files:
    for fn in f.get("functions", []):
        if fn["execution_count"] == 0:
            print(f'  {f["file"]}:{fn["lineno"]}: {fn["name"]}')
PY
echo "Line by line: $out/index.html"
