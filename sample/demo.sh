#!/usr/bin/env bash
# Restores the sample save (sample/save.txt) in a sandbox home under the
# build folder and shows what arrived.
set -u
build=${1:-build}
sample="$(cd "$(dirname "$0")" && pwd)"
bin="$(cd "$build/bin" && pwd)"
home="$(cd "$build" && pwd)/demo-home"
rm -rf "$home"
"$bin/mrvhome" init "$home" > /dev/null || exit 1   # include/mrvconfig, sys/, Temp/
mkdir -p "$home/bin" "$home/work"
ln -s "$bin/newacct" "$home/bin/newacct"   # the account maker, found through MRVBIN
export MRVHOME="$home" MRVBIN="$home/bin" TMP="$home/Temp" MRV_REGISTRY="$home/registry"
export MRV_MSG_PAUSE_MS="${MRV_MSG_PAUSE_MS:-0}"
work="$home/work"

echo "== mkreel sample/save.txt -> $work/t.tap"
(cd "$work" && "$bin/mkreel" "$sample/save.txt") || exit 1

echo
echo "== REEL_INTAKE -A plan (analysis of the first account)"
echo "0 t.tap rt.tap 8192" > "$home/sys/tapeinfo"
(cd "$work" && "$bin/REEL_INTAKE" -A plan)
echo "(exit status $?)"
echo "-- plan (kind, name, suggested modulo, tape modulo, key bytes, data bytes, records):"
cat "$work/plan"

echo
echo "== REEL_INTAKE -U 0 SALES (the restore)"
# A restore opens the unit from inside the account: the tape is one up.
echo "0 ../t.tap r../t.tap 8192" > "$home/sys/tapeinfo"
(cd "$work" && "$bin/REEL_INTAKE" -U 0 SALES)
status=$?
echo "(exit status $status; every run ends with 1)"

# The VOC entries a fresh account has, to tell the ones the restore added.
mkdir -p "$home/fresh" && (cd "$home/fresh" && "$bin/newacct" > /dev/null)
"$bin/mrvfile" list "$home/fresh/VOC" | sort > "$home/fresh.keys"

for account in SALES STOCK; do
  dir="$work/$account"
  echo
  echo "== account $account: $(ls "$dir" | tr '\n' ' ')"
  echo "-- dispmsg:"
  cat "$dir/dispmsg"
  echo "-- VOC entries added by the restore:"
  "$bin/mrvfile" list "$dir/VOC" | sort | comm -13 "$home/fresh.keys" - | while IFS= read -r key; do
    entry=$("$bin/mrvfile" get "$dir/VOC" "$key" | tr '\376' '|')
    echo "   $key = $entry"
  done
  echo "-- hashed files: records, check"
  for file in "$dir"/*; do
    name=$(basename "$file")
    [ -f "$file" ] || [ -f "$file/dat001" ] || continue
    "$bin/mrvfile" info "$file" > /dev/null 2>&1 || continue
    count=$("$bin/mrvfile" list "$file" | wc -l)
    if "$bin/mrvfile" check "$file" > "$home/check.out" 2>&1; then verdict="sound"; else verdict="FINDINGS: $(cat "$home/check.out")"; fi
    printf '   %-14s %4d records  %s\n' "$name" "$count" "$verdict"
  done
done

echo
echo "-- SALES/BP/MAIN:"
cat "$work/SALES/BP/MAIN"
echo "-- SALES/SAM/NOTES:"
cat "$work/SALES/SAM/NOTES"
echo "-- SALES/pgm_list:"
cat "$work/SALES/pgm_list"
echo "-- SALES/idx_list (indexes of dynamic files, to be made again):"
cat "$work/SALES/idx_list"
[ "$status" -eq 1 ] && [ -f "$work/SALES/VOC" ] && [ -f "$work/STOCK/VOC" ]
