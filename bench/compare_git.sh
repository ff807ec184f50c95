#!/usr/bin/env bash
# Ingest and read-back of image-like tiles: git's object store against
# RvoDdi, in one run on the same tiles.
#
# usage: bench/compare_git.sh [BENCH_INGEST] [TILES] [more bench_ingest options]
#   BENCH_INGEST  the built bench_ingest (default build/bench/bench/bench_ingest)
#   TILES         how many 256 KiB tiles (default 8192, that is 2 GiB; 300 for a
#                 quick run, which stays within the 256 MiB budget and so
#                 reads back from memory)
#
# git side: the tiles are written as files first (untimed), then a fresh
# repository stores them with `git hash-object -w --stdin-paths` (loose
# objects, git's defaults) and `git cat-file --batch` reads every object back
# by the ids hash-object printed. RvoDdi side: bench_ingest --tiles TILES,
# which adds the same tiles with a 256 MiB budget and one root, flushes
# everything to disk and reads every block back (see bench_ingest.cpp), once
# block by block and once preloading a few blocks ahead, the way a host reads
# a known sequence of blocks (preloadData); the read-ahead pass is compared
# with git's cat-file --batch, which also streams. Both sides report tiles
# per second; the ratios are RvoDdi over git. bench_ingest also measures, in
# the same run, each stage's CPU per tile alone and the rate all cores could
# reach on those costs; the last column is RvoDdi's rate as a share of it.
set -euo pipefail

bench=${1:-build/bench/bench/bench_ingest}
if [ $# -gt 0 ]; then shift; fi
tiles=${1:-8192}
if [ $# -gt 0 ]; then shift; fi

if [ ! -x "$bench" ]; then
    echo "compare_git.sh: no executable bench_ingest at '$bench'" >&2
    exit 2
fi
case $tiles in
'' | *[!0-9]* | 0 | 0*)
    echo "compare_git.sh: TILES must be a positive number, not '$tiles'" >&2
    exit 2
    ;;
esac
bench=$(cd "$(dirname "$bench")" && pwd)/$(basename "$bench")

work=$(mktemp -d "${TMPDIR:-/tmp}/compare_git.XXXXXX")
trap 'rm -rf "$work"' EXIT

now_ns() { date +%s%N; }
# rate COUNT START_NS END_NS: items per second
rate() { awk -v n="$1" -v a="$2" -v b="$3" 'BEGIN { printf "%.1f", n / ((b - a) / 1e9) }'; }
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.2f", a / b }'; }

echo "machine: $(nproc) cores, load average $(cut -d' ' -f1-3 /proc/loadavg), $(git --version)"
echo "writing $tiles tiles into $work/tiles ..."
"$bench" --write-tiles "$work/tiles" "$tiles"
# The tile names have fixed-width numbers, so the glob lists them in order.
printf '%s\n' "$work"/tiles/tile-*.bin > "$work/paths"

git init -q "$work/repo"

# Each timed phase starts with no dirty page cache left by the one before
# (the 2 GiB of tile files, git's objects), which the kernel would otherwise
# write back while the next phase runs.
sync
start=$(now_ns)
git -C "$work/repo" hash-object -w --stdin-paths < "$work/paths" > "$work/ids"
end=$(now_ns)
git_store=$(rate "$tiles" "$start" "$end")

sync
start=$(now_ns)
git -C "$work/repo" cat-file --batch < "$work/ids" > /dev/null
end=$(now_ns)
git_read=$(rate "$tiles" "$start" "$end")

# Untimed check that git holds every tile at its full size.
stored=$(git -C "$work/repo" cat-file --batch-check < "$work/ids" | awk '$2 == "blob" && $3 == 262144' | wc -l)
if [ "$stored" -ne "$tiles" ]; then
    echo "compare_git.sh: git holds $stored of $tiles tiles" >&2
    exit 1
fi
rm -rf "$work/tiles" "$work/repo"
sync

echo "running $bench --tiles $tiles ..."
# The first registered mode (asynchronous adds, 1 ms waits while the write
# queue is full) is the one compared (see bench/RESULTS.md).
"$bench" --tiles "$tiles" --benchmark_filter='BM_IngestAndReadBack/mode:3/' "$@" | tee "$work/rvoddi.txt"
result=$(grep '^RESULT ' "$work/rvoddi.txt" | head -n 1)
if [ -z "$result" ]; then
    echo "compare_git.sh: bench_ingest printed no RESULT line" >&2
    exit 1
fi
# RESULT <mode> tiles N ingest_tiles_per_s X read_tiles_per_s Y read_ahead_tiles_per_s Z
#        mismatches M ingest_limit_tiles_per_s L read_limit_tiles_per_s R
#        ingest_cpu_ms C read_ahead_cpu_ms D
read -r _ mode _ _ _ rvo_ingest _ rvo_read _ rvo_read_ahead _ mismatches \
    _ ingest_limit _ read_limit _ ingest_cpu _ read_cpu <<< "$result"
stages=$(grep '^STAGES ' "$work/rvoddi.txt" | head -n 1)

echo
echo "tiles: $tiles (256 KiB each), RvoDdi mode: $mode, mismatches: $mismatches"
echo "CPU per tile of each stage alone, ms: ${stages#STAGES }"
printf '%-28s %10s %10s %8s %10s %9s\n' "" "git" "RvoDdi" "ratio" "limit" "of limit"
printf '%-28s %10s %10s %7sx %10s %9s\n' "store, tiles per second" "$git_store" "$rvo_ingest" \
    "$(ratio "$rvo_ingest" "$git_store")" "$ingest_limit" "$(ratio "$rvo_ingest" "$ingest_limit")"
printf '%-28s %10s %10s %7sx %10s %9s\n' "read back, tiles per second" "$git_read" "$rvo_read_ahead" \
    "$(ratio "$rvo_read_ahead" "$git_read")" "$read_limit" "$(ratio "$rvo_read_ahead" "$read_limit")"
printf '%-28s %10s %10s %7sx\n' "  block by block (extra)" "$git_read" "$rvo_read" "$(ratio "$rvo_read" "$git_read")"
echo "CPU the process used per tile while timed: ingest $ingest_cpu ms, read-back $read_cpu ms"
if [ "$mismatches" != "0" ]; then
    exit 1
fi
