#!/usr/bin/env bash
# Runs REEL_INTAKE in a sandbox home under the build folder.
set -u
build=${1:-build}
sample="$(cd "$(dirname "$0")" && pwd)"
bin="$(cd "$build/bin" && pwd)"
home="$(cd "$build" && pwd)/demo-home"
rm -rf "$home"
mkdir -p "$home/include" "$home/sys" "$home/bin" "$home/Temp" "$home/work"
ln -s "$bin/newacct" "$home/bin/newacct"   # the account maker, found through MRVBIN
export MRVHOME="$home" MRVBIN="$home/bin" TMP="$home/Temp" MRV_REGISTRY="$home/registry"
export MRV_MSG_PAUSE_MS="${MRV_MSG_PAUSE_MS:-0}"

echo "== REEL_INTAKE without arguments"
"$bin/REEL_INTAKE"
echo "(exit status $?)"
echo
echo "0 t.tap rt.tap 8192" > "$home/sys/tapeinfo"
(cd "$home/work" && "$bin/mkreel" "$sample/save.txt") || exit 1

echo "== REEL_INTAKE -A plan (analysis of sample/save.txt) in $home/work"
cd "$home/work" && "$bin/REEL_INTAKE" -A plan
echo "(exit status $?)"
echo "-- plan:"
cat "$home/work/plan"
echo
echo "== REEL_INTAKE -U 0 DEMO in $home/work"
# A restore opens the unit from inside the account: the tape is one up.
echo "0 ../t.tap ../rt.tap 8192" > "$home/sys/tapeinfo"
cd "$home/work" && "$bin/REEL_INTAKE" -U 0 DEMO
echo "(exit status $?)"
echo "-- the accounts, named as on the tape:"
(cd "$home/work" && ls -p SALES STOCK 2>&1)
echo "-- SALES/dispmsg:"
cat "$home/work/SALES/dispmsg"
