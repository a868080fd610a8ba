#!/usr/bin/env bash
# Runs the production build on a machine with a card and writes the results to docs/gpu-results.md: the
# tests of the cuda build, one pass of every network under each tool of compute-sanitizer, and the
# comparison with PyTorch. Ends within nine minutes: the comparison gets the time that is left, and says
# what it had no time for. Needs the CUDA toolkit, cuDNN, CMake, Ninja and, for the comparison, Python
# with PyTorch and NumPy; needs no network.
#   scripts/gpu-check.sh [--dependencies DIR] [--tests] [--sanitize] [--bench [NET...]]
#   scripts/gpu-check.sh --collect DIR    fills DIR, on a machine with Debian's packages
# --tests, --sanitize and --bench choose parts; the default is all three. A part that is not run keeps
# its section of the page. DIR (build/gpu-dependencies) holds include/ with msgpack's headers, googletest/
# with GoogleTest's sources, and packages/ with the Python package, for the Python that collects. FACEZOO_COMMIT names the commit where there is no repository.
. "$(dirname "$0")/prelude.sh"

deadline=$((SECONDS + 520))
results=build/gpu-check
document=docs/gpu-results.md
dependencies=build/gpu-dependencies
parts=()
networks=()
while [ $# -gt 0 ]; do
  case $1 in
    --collect)
      mkdir -p "$2/include" "$2/googletest"
      cp -r /usr/include/msgpack.hpp /usr/include/msgpack "$2/include"
      cp -r /usr/src/googletest/googletest/{CMakeLists.txt,cmake,include,src} "$2/googletest"
      python3 -m pip wheel --quiet --no-deps --wheel-dir "$2/packages" . nanobind-backend
      du -sh "$2"
      exit 0
      ;;
    --dependencies) dependencies=$2 && shift ;;
    --tests | --sanitize | --bench) parts+=("${1#--}") ;;
    -*)
      sed -n '2,/^[^#]/{s/^# \?//p}' scripts/gpu-check.sh
      [ "$1" = --help ] && exit 0
      exit 2
      ;;
    *) networks+=("$1") ;;
  esac
  shift
done
[ ${#parts[@]} -gt 0 ] || parts=(tests sanitize bench)
mkdir -p "$results"
rm -f "$results"/{tests,sanitize,bench}.md

left() { echo $((deadline > SECONDS ? deadline - SECONDS : 1)); }

# The section of a part that has not been measured.
unanswered() {
  case $1 in
    tests)
      cat <<'TEXT'
## Tests

Open. `scripts/gpu-check.sh --tests` will show

- whether all layers and all eight networks are within the bounds of the CPU build's tests, the networks
  within 1e-4 of double precision, whatever algorithms cuDNN chooses;
- whether the contract holds that hosts rely on: errors, pool, copies, lives of several networks;
- whether average pooling divides an overhanging window by its positions inside the padded input, as
  the CPU platform does, and whether rounded-up pooling sizes are accepted;
- what becomes of NaN in max pooling, `Relu` and the fused convolution;
- which math types the query for an algorithm reports under plain fp32;
- whether the L2 norm has the same bits as on the CPU, and softmax subtracts no maximum of large inputs;
- whether as much device memory is free after 10000 passes of each network, and after each of 1000 lives
  of one.
TEXT
      ;;
    sanitize)
      cat <<'TEXT'
## Sanitizers

Open. `scripts/gpu-check.sh --sanitize` runs a few passes of every network under memcheck, initcheck,
racecheck and synccheck.
TEXT
      ;;
    bench)
      cat <<'TEXT'
## Speed

Open. `scripts/gpu-check.sh --bench` compares the library with PyTorch at batches 1, 8, 32 and 128, and
times the library's own kernels. The aims are

- at batch 1, twice the throughput of PyTorch's eager mode with autotuning, and at least that of its best
  form;
- at batch 32, at least the throughput of eager mode;
- element-wise kernels as fast as a copy of as many bytes;
- an L2 norm of 18432 values in little more than the time of its chain of multiply-adds.
TEXT
      ;;
  esac
}

# The section of a part as the page has it.
answered() {
  local heading
  heading=$(unanswered "$1" | head -1)
  awk -v heading="$heading" '/^## /{inside = ($0 == heading)} inside' "$document" | sed '$ {/^$/d}'
}

write_document() {
  local part text
  {
    echo "# What has been measured on a card"
    echo
    cat <<'TEXT'
`scripts/gpu-check.sh` writes this page. Each part that has been measured says when, on what card and of
which commit; a part that has not is marked as open. What needs no card is checked by
`scripts/cuda-build-check.sh`, and by `scripts/cuda-toolkits-check.sh` against toolkits 11.2, 11.8 and 12.4
with cuDNN 8 and 9.
TEXT
    for part in tests sanitize bench; do
      text=$(cat "$results/$part.md" 2>/dev/null || answered "$part")
      printf '\n%s\n' "${text:-$(unanswered "$part")}"
    done
  } >"$results/document.md"
  cp "$results/document.md" "$document"
}

# begin PART: the heading, and what the part runs on
begin() {
  unanswered "$1" | head -2
  echo "$(date +%F), $card, $versions, commit $commit."
  echo
}

build() {
  local options=(-DFACEZOO_TOOL=OFF -DFACEZOO_WERROR=OFF)
  if [ -d "$dependencies" ]; then
    local folder
    folder=$(cd "$dependencies" && pwd)
    options+=("-DFACEZOO_MSGPACK_INCLUDE_DIR=$folder/include"
      "-DFACEZOO_GOOGLETEST_DIR=$folder/googletest")
  fi
  # If the toolkit comes without cuDNN and cuBLAS, packages of Python may have them.
  local toolkit packages
  toolkit=$(dirname "$(dirname "$(readlink -f "$(command -v nvcc)")")")
  packages=$(python3 -c 'import nvidia; print(nvidia.__path__[0])' 2>/dev/null || true)
  has() { [ -e "$toolkit/include/$1" ] || [ -e "/usr/include/$1" ]; }
  if ! has cudnn.h; then
    export CUDNN_ROOT=${CUDNN_ROOT:-$packages/cudnn}
  fi
  if ! has cublas_v2.h; then
    local cublas
    cublas=$(find "$packages" -name 'libcublas.so.*' | head -1)
    options+=("-DCUDA_cublas_LIBRARY=$cublas")
    export CPATH=${cublas%/lib/*}/include
  fi
  { cmake --preset cuda -B build/gpu "${options[@]}" && cmake --build build/gpu; } \
    >"$results/build.log" 2>&1 || {
    tail -n 40 "$results/build.log"
    echo "the build failed; the whole log is $results/build.log" >&2
    exit 1
  }
}

run_tests() {
  local log=$results/tests.log status=0
  timeout --kill-after=10 "$(left)" ctest --test-dir build/gpu -LE '^cardless$' -j 4 --no-tests=error \
    >"$log" 2>&1 || status=$?
  {
    begin tests
    grep -E 'tests passed|tests failed' "$log" || echo "No summary: the tests ended with code $status."
    echo
    local skipped
    skipped=$(grep -c '(Skipped)' "$log" || true)
    [ "$skipped" -eq 0 ] || { echo "**$skipped tests were skipped.**" && echo && status=1; }
    if [ "$status" -eq 0 ]; then echo "Result: passed."; else echo "Result: **failed**."; fi
    echo
    echo '```'
    sed -n '/The following tests/,$p' "$log" | grep -E '^\s+[0-9]+ - ' || true
    grep -hE '^(verdict|measured)|Failure$|^(Expected|  Actual|Which is)' \
      build/gpu/Testing/Temporary/LastTest.log || true
    echo '```'
  } >"$results/tests.md"
  return "$status"
}

run_sanitize() {
  local tool status=0 tools=(memcheck initcheck racecheck synccheck) count
  count=$(build/gpu/bin/facezoo_tests --gtest_filter='NetworkPass.*' --gtest_list_tests | grep -c '^  ')
  for tool in "${tools[@]}"; do
    (
      code=0
      timeout --kill-after=10 "$(left)" compute-sanitizer --tool "$tool" --error-exitcode 99 \
        build/gpu/bin/facezoo_tests --gtest_filter='NetworkPass.*' --gtest_brief=1 \
        >"$results/$tool.log" 2>&1 || code=$?
      echo "$code" >"$results/$tool.code"
    ) &
  done
  wait
  {
    begin sanitize
    echo "A few passes of every network (\`NetworkPass.*\`) under each tool of compute-sanitizer."
    echo
    echo "| tool | result | summary |"
    echo "|---|---|---|"
    for tool in "${tools[@]}"; do
      local code result=silent
      code=$(cat "$results/$tool.code")
      if [ "$code" -ne 0 ]; then
        result="**not silent**, exit code $code"
        status=1
      elif ! grep -qE "PASSED +\] $count tests" "$results/$tool.log"; then
        result="**did not run** all $count networks"
        status=1
      fi
      echo "| $tool | $result | $(grep 'SUMMARY' "$results/$tool.log" | tail -1 | tr -d '=') |"
    done
    for tool in "${tools[@]}"; do
      # The places that the findings name.
      grep -oE ' at .*' "$results/$tool.log" | sort | uniq -c | sort -rn | head -5 |
        sed "s/^/    $tool:/" || true
    done
  } >"$results/sanitize.md"
  return "$status"
}

run_bench() {
  local status=0
  rm -f "$results/torch.md"
  {
    begin bench
    echo "### The library's own kernels"
    echo
    timeout 60 build/gpu/bin/facezoo-bench-kernels || { echo "**failed**" && false; }
  } >"$results/bench.md" || status=1
  if [ -d "$dependencies/packages" ]; then
    python3 -m pip install --quiet --upgrade --no-deps --target build/gpu-python "$dependencies"/packages/*.whl
    export PYTHONPATH=$PWD/build/gpu-python
  fi
  PYTHONUNBUFFERED=1 timeout --kill-after=10 "$(left)" python3 bench/compare_torch.py \
    "${networks[@]}" --batches 1 32 8 128 --build build/gpu --output "$results" \
    --minutes "$(awk "BEGIN { print ($(left) - 30) / 60 }")" >"$results/torch.log" 2>&1 || status=1
  {
    echo
    echo "### Beside PyTorch"
    echo
    cat "$results/torch.md" 2>/dev/null || {
      echo "**failed**"
      tail -n 20 "$results/torch.log" | sed 's/^/    /'
    }
  } >>"$results/bench.md"
  return "$status"
}

card=$(nvidia-smi --query-gpu=name --format=csv,noheader 2>/dev/null | head -1) || {
  write_document
  echo "no card: nvidia-smi finds none; $document lists what is open" >&2
  exit 1
}
echo "== build"
build
driver=$(nvidia-smi --query-gpu=driver_version --format=csv,noheader | head -1)
versions="driver $driver, $(sed -n 's/^-- \(CUDA toolkit .*\)/\1/p' "$results/build.log")"
commit=${FACEZOO_COMMIT:-$(git describe --always --dirty 2>/dev/null || echo unknown)}
grep 'warning:' "$results/build.log" || true

failed=()
for part in "${parts[@]}"; do
  start=$SECONDS
  echo "== $part"
  "run_$part" || failed+=("$part")
  cat "$results/$part.md"
  write_document
  echo "== $part: $((SECONDS - start)) s"
done
[ ${#failed[@]} -eq 0 ] || {
  echo "failed: ${failed[*]}" >&2
  exit 1
}
