#!/bin/bash
# Writes the seed corpora of the fuzz targets from fuzz/seeds with the
# project's own programs: mkreel writes each seed tape, REEL_INTAKE
# restores the plain ones into hashed files for the file target and
# analyses the plain one for a plan, beside the written plans of
# fuzz/seeds/*.plan. Inputs are named by their SHA-1, as libFuzzer names what it keeps.
#   fuzz/make_seeds.sh [BUILD_DIR]     (default build)
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
build=$(cd "${1:-$here/../build}" && pwd)
bin=$build/bin
corpus=$here/corpus
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

keep() {  # keep TARGET FILE [PREFIX-BYTE-OCTAL]
  local out=$work/input
  if [ -n "${3:-}" ]; then printf "\\$3" > "$out"; else : > "$out"; fi
  cat "$2" >> "$out"
  mkdir -p "$corpus/$1"
  cp "$out" "$corpus/$1/$(sha1sum "$out" | cut -c1-40)"
}

for seed in "$here"/seeds/*.txt; do
  name=$(basename "$seed" .txt)
  mkdir -p "$work/$name"
  (cd "$work/$name" && "$bin/mkreel" < "$seed")
  # The first byte of a tape_stream input picks the reading: the transport
  # in bits 0-1, the -M mode in bits 2-3, level 0 in bit 4.
  transport=0
  case $(grep -m1 '^framing' "$seed" | cut -d' ' -f2) in
    buffered) transport=1 ;; cartridge) transport=2 ;; stream) transport=3 ;;
  esac
  convert=$(grep -m1 '^convert' "$seed" | cut -d' ' -f2 || true)
  level=0
  [ "$name" = level0 ] && level=16
  how=$(( transport | ${convert:-0} << 2 | level ))
  tape=$(ls "$work/$name"/t.*)
  keep tape_stream "$tape" "$(printf '%03o' "$how")"
  if [ "$transport" = 0 ]; then
    keep static_records "$tape"
    keep member_text "$tape"
    keep dynamic_pages "$tape" "$(printf '%03o' 3)"
  fi
done

for list in "$here"/seeds/*.list; do
  keep lists "$list"
done

# Plans: the first byte of a plan_lines input picks the options, short
# names in bit 0, -R ALL in bit 1.
for plan in "$here"/seeds/*.plan; do
  how=0
  case $(basename "$plan" .plan) in
    short-names) how=1 ;; taken-names) how=2 ;;
  esac
  keep plan_lines "$plan" "$(printf '%03o' "$how")"
done

# A complete mrvconfig as mrvconf writes it, and one with odd lines.
"$bin/mrvconf" write "$work/mrvconfig" > /dev/null
keep config_lines "$work/mrvconfig"
printf 'NFILES=\nNFILES=99999999999999999999\nTMP=/a/very/long/path/%%0100d\n=1\nSHM_MAX_SIZE=-5\nMRV_LANGGRP=1/2\n' > "$work/odd"
keep config_lines "$work/odd"

# Hashed files as a restore of the plain seed leaves them.
home=$work/home
mkdir -p "$home/include" "$home/sys" "$work/bin" "$work/run"
ln -s "$bin/newacct" "$work/bin/newacct"
echo "0 ../t.tap r../t.tap 8192" > "$home/sys/tapeinfo"
cp "$work/mrvconfig" "$home/include/mrvconfig"
cp "$work/plain/t.tap" "$work/run/t.tap"
(cd "$work/run" && MRVHOME=$home MRVBIN=$work/bin MRV_MSG_PAUSE_MS=0 TMP=$work \
   "$bin/REEL_INTAKE" ACC < /dev/null > /dev/null 2>&1) || true
# The plan that an analysis of the plain seed writes.
mkdir -p "$work/run/analysis"
(cd "$work/run/analysis" && MRVHOME=$home MRVBIN=$work/bin MRV_MSG_PAUSE_MS=0 TMP=$work \
   "$bin/REEL_INTAKE" -A plan < /dev/null > /dev/null 2>&1) || true
keep plan_lines "$work/run/analysis/plan" 000
for file in SALES/CUST SALES/D_CUST SALES/DUMP_VOC OTHER/PARTS; do
  # The restore stamps its files with the time: keep one set only.
  [ -n "$(ls "$corpus/hashed_file" 2> /dev/null)" ] && break
  keep hashed_file "$work/run/$file"
done
echo "seeds written to $corpus"
