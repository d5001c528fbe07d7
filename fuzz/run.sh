#!/usr/bin/env bash
# Runs each harness of a fuzz build for a fixed time, one after the other,
# from the seeds in fuzz/corpus. What a run adds to the corpus goes to a
# scratch folder, not to the repository. A harness that fails stops the
# script; the input that made it fail is left as crash-* (or leak-*,
# timeout-*) in the current folder, and replays with `HARNESS FILE`.
#
#     fuzz/run.sh [BUILD_FOLDER] [SECONDS_EACH] [HARNESS...]
#
# prints one line per harness: executions, coverage (cov) and features (ft).
#     FUZZ_CORPUS=/var/tmp/roomcrate-corpus FUZZ_TIMEOUT=300 nice -n 19 fuzz/run.sh build-fuzz 600
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
build="${1:-build-fuzz}"
seconds="${2:-15}"
shift $(( $# < 2 ? $# : 2 ))
if [ "$#" -gt 0 ]; then
    harnesses=("$@")
else
    harnesses=()
    for exe in "$build"/fuzz/fuzz_*; do
        name="$(basename "$exe")"
        [ "$name" = fuzz_seeds ] || harnesses+=("${name#fuzz_}")
    done
fi
# FUZZ_CORPUS names a folder that keeps the corpora a run grows, for a
# longer run in several goes; by default they go with the run.
if [ -n "${FUZZ_CORPUS:-}" ]; then
    scratch="$FUZZ_CORPUS"
    mkdir -p "$scratch"
else
    scratch="$(mktemp -d "${TMPDIR:-/tmp}/roomcrate-fuzz.XXXXXX")"
    trap 'rm -rf "$scratch"' EXIT
fi
# A failing or slow input is kept under the build folder, out of git's sight.
artifacts="$build/fuzz-artifacts"
mkdir -p "$artifacts"
# FUZZ_TIMEOUT is the wall time one input may take before it counts as a
# hang (25 s): a long run at low priority beside other work needs more.
# A smaller quarantine keeps a long run's memory in bounds.
export ASAN_OPTIONS="${ASAN_OPTIONS:-quarantine_size_mb=64:detect_leaks=1}"

for name in "${harnesses[@]}"; do
    exe="$build/fuzz/fuzz_$name"
    mkdir -p "$scratch/$name"
    args=(-max_total_time="$seconds" -timeout="${FUZZ_TIMEOUT:-25}" -rss_limit_mb=2560 -print_final_stats=1
          -artifact_prefix="$artifacts/")
    # FUZZ_SEED fixes libFuzzer's choices, so that the same tree runs the
    # same inputs: a gate whose verdict does not depend on luck.
    [ -n "${FUZZ_SEED:-}" ] && args+=(-seed="$FUZZ_SEED")
    # PDU numbers and field values for what reads payloads; ini words for
    # what reads ini files.
    case "$name" in
        payload_* | pdu) dict="$here/pdu.dict" ;;
        startup) dict="$here/ini.dict" ;;
        *) dict="$here/$name.dict" ;;
    esac
    [ -f "$dict" ] && args+=(-dict="$dict")
    seeds=()
    [ -d "$here/corpus/$name" ] && seeds=("$here/corpus/$name")
    if ! "$exe" "${args[@]}" "$scratch/$name" "${seeds[@]}" >"$scratch/$name.log" 2>&1; then
        tail -n 40 "$scratch/$name.log"
        echo "fuzz_$name FAILED; the input is in $artifacts" >&2
        exit 1
    fi
    execs="$(sed -n 's/^stat::number_of_executed_units: *//p' "$scratch/$name.log")"
    # A harness whose time ran out while it still read its seeds (a slow one
    # on a loaded machine) prints no DONE line: that is no failure.
    done_line="$(grep -E '^#[0-9]+[[:space:]]+DONE' "$scratch/$name.log" | tail -n 1 || true)"
    cov="$(sed -n 's/.* cov: \([0-9]*\).*/\1/p' <<<"$done_line")"
    ft="$(sed -n 's/.* ft: \([0-9]*\).*/\1/p' <<<"$done_line")"
    printf '%-12s %10s executions  cov %6s  ft %7s  in %ss\n' "$name" "$execs" "$cov" "$ft" "$seconds"
done
