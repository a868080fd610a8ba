#!/usr/bin/env bash
# Configures the cuda platform with folders that pretend to hold versions of the toolkit and of cuDNN,
# and checks what CMake says. The folders hold only the files that versions are read from.
#   cuda_requirements_test.sh SOURCE-DIRECTORY
set -euo pipefail
source=$1
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT

# configure NAME EXPECTED-TEXT ARGUMENT...: whether configuring succeeds is not asked
configure() {
  local name=$1 expected=$2
  shift 2
  cmake -S "$source" -B "$folder/build-$name" -G Ninja -DFACEZOO_PLATFORM=cuda \
    -DFACEZOO_TESTS=OFF -DFACEZOO_TOOL=OFF "$@" >"$folder/log" 2>&1 || true
  # CMake breaks long lines.
  tr -s '\n ' ' ' <"$folder/log" | grep -qF "$expected" && return
  echo "$name: not said: $expected" >&2
  cat "$folder/log" >&2
  exit 1
}

# cudnn HEADER VERSION...: a folder for each
cudnn() {
  local header=$1 version
  shift
  for version; do
    local root=$folder/cudnn-$version
    mkdir -p "$root/include" "$root/lib"
    IFS=. read -r major minor patch <<<"$version"
    touch "$root/include/cudnn.h" "$root/lib/libcudnn.so.$major"
    printf '#define CUDNN_MAJOR %s\n#define CUDNN_MINOR %s\n#define CUDNN_PATCHLEVEL %s\n' \
      "$major" "$minor" "$patch" >"$root/include/$header"
  done
}

cudnn cudnn.h 6.0.21 7.6.5
cudnn cudnn_version.h 8.9.7 9.19.0 10.0.1
for version in 7.6.5 8.9.7 9.19.0; do
  configure "cudnn-$version" ", cuDNN $version" -DcuDNN_ROOT="$folder/cudnn-$version"
done
supported="CUDA toolkits 10.1 to 13 and cuDNN 7 to 9 are supported."
for version in 6.0.21 10.0.1; do
  configure "cudnn-$version" \
    "cuDNN $version found in $folder/cudnn-$version/include. $supported" \
    -DcuDNN_ROOT="$folder/cudnn-$version"
done
rm "$folder/cudnn-7.6.5/lib/libcudnn.so.7"
configure "cudnn-without-library" \
  "No library of cuDNN 7.6.5 found, whose header is in $folder/cudnn-7.6.5/include" \
  -DcuDNN_ROOT="$folder/cudnn-7.6.5"
rm "$folder/cudnn-10.0.1/include/cudnn_version.h"
configure "cudnn-unknown" "does not state its version. $supported" \
  -DcuDNN_ROOT="$folder/cudnn-10.0.1"
configure "cudnn-none" "No cuDNN found (hint: cuDNN_ROOT). $supported" \
  -DcuDNN_INCLUDE_DIR=cuDNN_INCLUDE_DIR-NOTFOUND -DCMAKE_FIND_ROOT_PATH="$folder" \
  -DCMAKE_FIND_ROOT_PATH_MODE_INCLUDE=ONLY

# toolkit VERSION: a folder for it, whose compiler does nothing else than say so
toolkit() {
  local root=$folder/toolkit-$1
  mkdir -p "$root/bin" "$root/include" "$root/lib64"
  printf '#!/bin/sh\necho "Cuda compilation tools, release %s, V%s.1"\n' "$1" "$1" >"$root/bin/nvcc"
  chmod +x "$root/bin/nvcc"
  echo "#define CUDA_VERSION ${1%.*}0${1#*.}0" >"$root/include/cuda.h"
  touch "$root/include/cuda_runtime.h" "$root/lib64/libcudart.so"
}

toolkit 9.2
configure "toolkit-9.2" "CUDA toolkit 9.2.1 found in $folder/toolkit-9.2/bin. $supported" \
  -DCUDAToolkit_ROOT="$folder/toolkit-9.2"
while read -r version architectures; do
  toolkit "$version"
  configure "toolkit-$version" "CUDA toolkit $version" \
    -DCUDAToolkit_ROOT="$folder/toolkit-$version" -DcuDNN_ROOT="$folder/cudnn-8.9.7"
  grep -qx "CMAKE_CUDA_ARCHITECTURES:STRING=$architectures" \
    "$folder/build-toolkit-$version/CMakeCache.txt" || {
    echo "toolkit $version: not for $architectures" >&2
    exit 1
  }
done <<'END'
10.1 50;60
12.9 50;60
13.0 75;80;90
END
echo "configuring: versions, messages and architectures as documented"
