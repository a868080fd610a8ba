#!/usr/bin/env bash
# Feeds hostile files to the readers of files, under AddressSanitizer and UndefinedBehaviorSanitizer. An input
# that reaches code which the corpus does not is kept in build/fuzz for later runs. An input that ends a run,
# also by taking more memory than it may, becomes part of the corpus, which the tests replay. Inputs are short
# at first, which is fast, and grow when nothing new is found.
#   scripts/fuzz.sh MINUTES [TARGET]...        each TARGET for MINUTES; default: weight_file image safetensors
. "$(dirname "$0")/prelude.sh"
. scripts/tests.sh

minutes=${1:?minutes, such as 1}
shift
[ $# -gt 0 ] || set -- weight_file image safetensors

build_preset host-asan "${@/#/fuzz_}"

fuzz() {
  local target=$1 seconds=$(($2 * 60)) found=build/fuzz/$1 log=build/fuzz/$1.log
  # Limits in MiB for one allocation and for the process. The process's limit for pictures is what the tool
  # allows them, and half a GiB more, as the sanitizer keeps freed memory from use. Other files take a few
  # times their size.
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
