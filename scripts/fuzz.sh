#!/usr/bin/env bash
# Feeds hostile files to what reads files, under AddressSanitizer and UndefinedBehaviorSanitizer. What
# reaches further than the corpus is kept for later runs in build/fuzz; what ends a run becomes part of
# the corpus, which the tests replay; so does a file that takes more memory than it may. Inputs are short
# at first, which is fast, and grow as nothing new is found.
#   scripts/fuzz.sh MINUTES [TARGET]...        default: weight_file image safetensors, MINUTES each
. "$(dirname "$0")/prelude.sh"
. scripts/tests.sh

minutes=${1:?minutes, such as 1}
shift
[ $# -gt 0 ] || set -- weight_file image safetensors

build_preset host-asan "${@/#/fuzz_}"

fuzz() {
  local target=$1 seconds=$(($2 * 60)) found=build/fuzz/$1 log=build/fuzz/$1.log
  # MiB at once and in all: what pictures may take, and half a GiB that the sanitizer keeps for itself
  # and holds back from use; of the other files the tool takes a few times their size.
  local block=256 memory=1024
  [ "$target" != image ] || block=1526 memory=2048
  mkdir -p "$found"
  if ! "build/host-asan/bin/fuzz_$target" -max_total_time="$seconds" -timeout=30 \
    -max_len=200000 -len_control=20 -malloc_limit_mb="$block" -rss_limit_mb="$memory" \
    -dict="fuzz/$target.dict" -artifact_prefix="fuzz/corpus/$target/" -print_final_stats=1 \
    "$found" "fuzz/corpus/$target" >"$log" 2>&1; then
    tail -n 60 "$log"
    echo "fuzzed $target: a finding; see above and fuzz/corpus/$target"
    return 1
  fi
  awk -v target="$target" '/number_of_executed_units/ {runs = $2} /average_exec_per_sec/ {rate = $2}
    END {print "fuzzed " target ": " runs " executions, " rate " a second, no finding"}' "$log"
}
export -f fuzz
printf '%s\n' "$@" | xargs -P "$(nproc)" -I{} bash -c "fuzz {} $minutes"
