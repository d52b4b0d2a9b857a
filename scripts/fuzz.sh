#!/usr/bin/env bash
# Builds the fuzz targets (fuzz/, clang, libFuzzer with AddressSanitizer and
# UndefinedBehaviorSanitizer) and runs each for a bounded time on its seed
# corpus. Any crash, leak, sanitizer report or timeout fails the run; the
# input that caused it is kept under $BUILD_DIR/artifacts/.
#
#   BUILD_DIR     build directory (default build-fuzz)
#   FUZZ_SECONDS  seconds per target (default 60)
#   FUZZ_TARGETS  targets to run (default: all)
set -euo pipefail

cd "$(dirname "${BASH_SOURCE[0]}")/.."
BUILD_DIR="${BUILD_DIR:-build-fuzz}"
FUZZ_SECONDS="${FUZZ_SECONDS:-60}"
FUZZ_TARGETS="${FUZZ_TARGETS:-item_text query chksum journal inifile parse_path listing}"
JOBS="${JOBS:-2}"

CC=clang CXX=clang++ cmake -S fuzz -B "$BUILD_DIR" -DCMAKE_BUILD_TYPE=RelWithDebInfo
targets=()
for t in $FUZZ_TARGETS; do targets+=("${t}_fuzz"); done
cmake --build "$BUILD_DIR" -j"$JOBS" --target "${targets[@]}"

mkdir -p "$BUILD_DIR/artifacts"
# The shadow targets sync every file they write; on the memory file system
# that costs nothing, so the time goes to inputs.
if [ -z "${TMPDIR:-}" ] && [ -w /dev/shm ]; then export TMPDIR=/dev/shm; fi
summary="$BUILD_DIR/fuzz-summary.txt"
printf '| target | seconds | executions | exec/s | coverage (cov) | features (ft) | corpus | result |\n' >"$summary"
printf '|---|---|---|---|---|---|---|---|\n' >>"$summary"

failed=0
for t in $FUZZ_TARGETS; do
    work="$BUILD_DIR/corpus/$t"
    mkdir -p "$work"
    max_len=4096
    [ "$t" = listing ] && max_len=16384
    log="$BUILD_DIR/$t.log"
    echo "== $t: $FUZZ_SECONDS s"
    set +e
    # New inputs go to the working corpus; the checked-in seeds stay as they are.
    ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
        "$BUILD_DIR/${t}_fuzz" -max_total_time="$FUZZ_SECONDS" -max_len="$max_len" -timeout=20 \
        -print_final_stats=1 -artifact_prefix="$BUILD_DIR/artifacts/$t-" \
        "$work" "fuzz/corpus/$t" >"$log" 2>&1
    rc=$?
    set -e
    runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
    speed=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log" | tail -1)
    last=$(grep -E '^#[0-9]+' "$log" | tail -1 || true)
    cov=$(sed -n 's/.* cov: \([0-9]*\).*/\1/p' <<<"$last")
    ft=$(sed -n 's/.* ft: \([0-9]*\).*/\1/p' <<<"$last")
    corp=$(sed -n 's/.* corp: \([0-9]*\).*/\1/p' <<<"$last")
    if [ "$rc" -eq 0 ]; then result=ok; else result="FAILED ($rc)"; failed=1; fi
    printf '| %s | %s | %s | %s | %s | %s | %s | %s |\n' "$t" "$FUZZ_SECONDS" "${runs:-?}" "${speed:-?}" \
        "${cov:-?}" "${ft:-?}" "${corp:-?}" "$result" >>"$summary"
    if [ "$rc" -ne 0 ]; then
        echo "---- $t failed; end of its log ($log):"
        tail -60 "$log"
    else
        echo "$last"
    fi
done

echo
cat "$summary"
if [ "$failed" -ne 0 ]; then
    echo "fuzz: a target failed (inputs in $BUILD_DIR/artifacts/)"
    exit 1
fi
echo "fuzz: every target ran $FUZZ_SECONDS s without a failure"
