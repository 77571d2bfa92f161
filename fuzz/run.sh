#!/bin/bash
# Runs every fuzz target (or those named) for SECONDS each with libFuzzer,
# AddressSanitizer and UndefinedBehaviorSanitizer, in the clang build
# BUILD_DIR (default build-fuzz), starting from the target's corpus.
#   fuzz/run.sh [SECONDS] [TARGET...]          (make fuzz FUZZ_SECONDS=N)
# New inputs that reach new code go to BUILD_DIR/corpus/<target>; inputs
# that make a target fail go to BUILD_DIR/findings/<target>/ and belong,
# once fixed, in fuzz/corpus/<target>. The last lines of each target's log
# (executions, coverage) are printed at the end; logs stay in BUILD_DIR/logs.
set -uo pipefail
here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/.." && pwd)
seconds=${1:-60}
shift || true
targets=("$@")
[ ${#targets[@]} -eq 0 ] && targets=(tape_stream static_records member_text lists hashed_file dynamic_pages config_lines plan_lines)
build=${FUZZ_BUILD:-$root/build-fuzz}

if ! command -v clang++ > /dev/null; then
  echo "clang++ is missing: installing clang (libFuzzer comes with it)"
  sudo -n apt-get install -y clang > /dev/null || apt-get install -y clang > /dev/null || exit 1
fi
if [ ! -f "$build/build.ninja" ]; then
  CC=clang CXX=clang++ cmake -S "$root" -B "$build" -G Ninja -DREEL_FUZZ=ON \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo > /dev/null || exit 1
fi
cmake --build "$build" -j "${JOBS:-2}" --target $(printf 'fuzz_%s ' "${targets[@]}") || exit 1

mkdir -p "$build/logs"
export ASAN_OPTIONS=detect_leaks=0:abort_on_error=1
export UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1
status=0
for t in "${targets[@]}"; do
  mkdir -p "$build/corpus/$t" "$build/findings/$t"
  (cd "$build/findings/$t" && TMPDIR="$build" "$build/bin/fuzz_$t" -max_total_time="$seconds" \
      -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 -artifact_prefix="$build/findings/$t/" \
      "$build/corpus/$t" "$here/corpus/$t" > "$build/logs/$t.log" 2>&1) || status=1
  echo "== $t"
  grep -E '^(#[0-9]+.*(DONE|pulse)|stat::number_of_executed_units|stat::new_units_added)' "$build/logs/$t.log" | tail -3
  ls "$build/findings/$t" | sed 's/^/finding: /'
done
exit $status
