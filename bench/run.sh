#!/usr/bin/env bash
# make bench: writes the benchmark save (cached), restores it with
# REEL_INTAKE, checks every record, and measures the restore and point reads
# against Kyoto Cabinet, LMDB and Tkrzw. Settings from the environment:
#   BENCH_RECORDS  records of the whole save (default 1000000; half static,
#                  half dynamic)
#   BENCH_SEED     seed of the records (default 16)
#   BENCH_REPS     interleaved repetitions (default 3)
#   BENCH_K        the restore's -K, KiB of load buffer (default 65536)
#   BENCH_CACHE    folder of cached saves (default BUILD/bench-cache)
set -eu
build=${1:-build}
records=${BENCH_RECORDS:-1000000}
seed=${BENCH_SEED:-16}
reps=${BENCH_REPS:-3}
kbuf=${BENCH_K:-65536}
cache=${BENCH_CACHE:-$build/bench-cache}
here="$(cd "$(dirname "$0")" && pwd)"

# The peers come from Debian packages; install what is missing.
missing=""
for p in libkyotocabinet-dev liblmdb-dev libtkrzw-dev pkg-config; do
  dpkg -s "$p" > /dev/null 2>&1 || missing="$missing $p"
done
if [ -n "$missing" ]; then
  echo "== installing$missing"
  sudo=""; [ "$(id -u)" -eq 0 ] || sudo=sudo
  $sudo apt-get install -y $missing > /dev/null
fi

cmake "$build" > /dev/null   # finds the peers once they are installed
cmake --build "$build" --target bench_gensave bench_driver REEL_INTAKE newacct mkreel -j 2
bin="$(cd "$build/bin" && pwd)"
mkdir -p "$cache"
cache="$(cd "$cache" && pwd)"

# The dynamic half is written once mkreel describes dynamic files and the
# restore reads them back.
dynamic=""
probe="$cache/probe"
rm -rf "$probe" && mkdir -p "$probe"
if (cd "$probe" && "$bin/bench_gensave" --records 4 --dynamic p.tap | "$bin/mkreel") > /dev/null 2>&1; then
  dynamic="--dynamic"
fi
rm -rf "$probe"
half=static; [ -n "$dynamic" ] && half=full
if [ -z "$dynamic" ]; then
  echo "== the save holds its static half only: mkreel does not describe dynamic files yet"
fi

stamp=$(cat "$here/bench_records.h" "$here/bench_gensave.cc" | sha1sum | cut -c1-10)
tape="$cache/save-$records-$seed-$half-$stamp.tap"
if [ ! -f "$tape" ]; then
  echo "== writing the save $tape"
  part="$cache/writing-$(basename "$tape")"
  "$bin/bench_gensave" --records "$records" --seed "$seed" $dynamic "$part" | "$bin/mkreel"
  mv "$part" "$tape"
fi

echo "== machine: $(nproc) cores, $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | sed 's/^ *//'), load $(cut -d' ' -f1-3 /proc/loadavg)"
"$bin/bench_driver" --bin "$bin" --work "$build/bench-work" --tape "$tape" --records "$records" \
  --seed "$seed" --reps "$reps" --kbuf "$kbuf" $dynamic
