#!/usr/bin/env bash
# Runs every built fuzz target for a short while and fails if any of them
# finds a crash, a leak, undefined behaviour or a timeout.
#
#   fuzz/run-smoke.sh [SECONDS]        default 30 seconds per target
#
# Targets are the fuzz_* programs of the build tree in $VEL_FUZZ_BUILD_DIR
# (default: build-fuzz, from the 'fuzz' preset). Each target fuzzes a corpus
# under <build>/fuzz/corpus/<stem>, seeded from fuzz/corpus/<stem>/ when that
# exists and kept between runs; fuzz/<stem>.dict is used as dictionary when it
# exists. Crash inputs are written to <build>/fuzz/artifacts/<stem>/ and logs
# to <build>/fuzz/logs/<stem>.log.
set -euo pipefail

seconds="${1:-30}"
if ! [[ "$seconds" =~ ^[0-9]+$ ]] || [ "$seconds" -eq 0 ]; then
  echo "usage: $0 [SECONDS]   (a positive whole number of seconds per target)" >&2
  exit 2
fi

here="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
root="$(dirname "$here")"
build="${VEL_FUZZ_BUILD_DIR:-$root/build-fuzz}"
bindir="$build/fuzz"

shopt -s nullglob
sources=("$here"/*.cpp)
if [ "${#sources[@]}" -eq 0 ]; then
  echo "fuzz smoke: no fuzz targets under fuzz/; nothing to run"
  exit 0
fi

failed=()
ran=0
for src in "${sources[@]}"; do
  stem="$(basename "$src" .cpp)"
  exe="$bindir/fuzz_$stem"
  if [ ! -x "$exe" ]; then
    echo "fuzz smoke: fuzz_$stem is not built (expected $exe); build the 'fuzz' preset first" >&2
    failed+=("fuzz_$stem (not built)")
    continue
  fi

  corpus="$bindir/corpus/$stem"
  artifacts="$bindir/artifacts/$stem"
  log="$bindir/logs/$stem.log"
  mkdir -p "$corpus" "$artifacts" "$(dirname "$log")"
  if [ -d "$here/corpus/$stem" ]; then
    # Seeds are copied, never fuzzed in place: libFuzzer adds files to the
    # first corpus folder it is given.
    cp -n -- "$here/corpus/$stem"/* "$corpus"/ 2>/dev/null || true
  fi

  args=(-max_total_time="$seconds" -timeout=25 -rss_limit_mb=2048
        -print_final_stats=1 -artifact_prefix="$artifacts/")
  if [ -f "$here/$stem.dict" ]; then
    args+=(-dict="$here/$stem.dict")
  fi

  echo "fuzz smoke: fuzz_$stem for ${seconds}s (corpus $corpus)"
  ran=$((ran + 1))
  if "$exe" "${args[@]}" "$corpus" >"$log" 2>&1; then
    grep -E '^(stat::number_of_executed_units|stat::peak_rss_mb):' "$log" | sed 's/^/  /' || true
  else
    rc=$?
    echo "fuzz smoke: fuzz_$stem FAILED (exit $rc); last lines of $log:" >&2
    tail -n 40 "$log" >&2
    failed+=("fuzz_$stem")
  fi
done

if [ "${#failed[@]}" -gt 0 ]; then
  echo "fuzz smoke: ${#failed[@]} of ${#sources[@]} targets failed: ${failed[*]}" >&2
  exit 1
fi
echo "fuzz smoke: all $ran targets ran ${seconds}s each without a finding"
