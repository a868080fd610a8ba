#!/usr/bin/env bash
# Builds the library against older CUDA toolkits and cuDNNs, each with a compiler of its time, and checks
# what needs no card. Fetches them from Debian, its non-free part included, and from PyPI: 5 GB the first
# time, of which it keeps 1 GB. Installs nothing.
#   scripts/cuda-toolkits-check.sh [FOLDER]    FOLDER keeps what was fetched; default: build/toolkits
. "$(dirname "$0")/prelude.sh"
. scripts/cuda-library-checks.sh

# Version of the toolkit, Debian's release that has it, version of the C++ compiler, Debian's release that
# has it, and cuDNN's requirement for pip.
combinations=(
  "11.2 bullseye 9 bullseye nvidia-cudnn-cu11==8.5.0.96"
  "11.8 bookworm 11 bookworm nvidia-cudnn-cu11==8.9.6.50"
  "12.4 trixie 12 bookworm nvidia-cudnn-cu12==8.9.7.29"
  "12.4 trixie 12 bookworm nvidia-cudnn-cu12==9.0.0.312"
)
# Packages that cublas_v2.h and the linker need beside nvidia-cuda-toolkit and nvidia-cuda-dev.
declare -A also=(
  [11.2]="libcudart11.0" [11.8]="libcudart11.0 libcu++-dev" [12.4]="libcudart12 libcu++-dev"
)

folder=${1:-build/toolkits}
mkdir -p "$folder/apt/lists/partial" "$folder/apt/cache/archives/partial"
folder=$(realpath "$folder")
unset CPATH LIBRARY_PATH CUDACXX # they may lead to an installed toolkit

# Package lists of several releases of Debian, apart from those of the system.
export APT_CONFIG=$folder/apt/apt.conf
# shellcheck disable=SC2016 # apt-get's own variable
mirror=$(APT_CONFIG='' apt-get indextargets --format '$(REPO_URI)' 'Created-By: Packages' \
  'Label: Debian' | sort -u | sed -n 1p)
[ -n "$mirror" ] || {
  echo "no package lists of Debian: run apt-get update first" >&2
  exit 1
}
keyring=/usr/share/keyrings/debian-archive-keyring.gpg
for release in bullseye bookworm trixie; do
  echo "deb [signed-by=$keyring] $mirror $release main non-free"
done >"$folder/apt/sources.list"
cat >"$APT_CONFIG" <<EOF
APT::Sandbox::User "root";
Dir::Etc::sourcelist "$folder/apt/sources.list";
Dir::Etc::sourceparts "-";
Dir::State::lists "$folder/apt/lists";
Dir::Cache "$folder/apt/cache";
EOF

once() { # NAME COMMAND...: unless folder NAME exists, makes it by running COMMAND in an empty folder
  [ -d "$folder/$1" ] && return
  echo "fetching $1 ..."
  rm -rf "$folder/part"
  mkdir "$folder/part"
  (cd "$folder/part" && "${@:2}")
  mv "$folder/part" "$folder/$1"
}

packages() { # RELEASE PACKAGE...
  local release=$1
  shift
  apt-get update -qq
  apt-get download -qq "${@/%//$release}"
}

get_compiler() { # VERSION RELEASE
  packages "$2" {g++,gcc,cpp}-"$1" lib{stdc++,gcc}-"$1"-dev
  for package in *.deb; do dpkg-deb -x "$package" .; done
  rm ./*.deb
  local library=usr/lib/x86_64-linux-gnu/libstdc++.so.6
  mkdir -p "${library%/*}"
  ln -sf "$(g++ -print-file-name=libstdc++.so.6)" "$library"
}

# Unpacks the packages to the layout of the maker's own installer. The linker gets the stub of cuBLAS.
get_toolkit() { # RELEASE PACKAGE...
  packages "$@"
  for package in *.deb; do
    dpkg-deb --fsys-tarfile "$package" | tar -x \
      --exclude='libcu[bfrs]*.a' --exclude='libn[pv]*.a' --exclude='x86_64-linux-gnu/libcublas*' \
      --exclude=./usr/share --exclude=./usr/lib/cuda --exclude=./usr/bin/nvcc \
      --exclude=nvcc.profile --exclude='nvidia-cuda-toolkit/bin/g*' \
      --transform='s,^\./usr/lib/nvidia-cuda-toolkit/,./,;s,^\./libdevice,./nvvm/libdevice,' \
      --transform='s,^\./usr/lib/x86_64-linux-gnu/\(stubs/\)\?,./lib64/,;s,^\./usr/,./,'
  done
  rm ./*.deb
  cat >bin/nvcc.profile <<'EOF'
NVVMIR_LIBRARY_DIR = $(_HERE_)/../nvvm/libdevice
PATH += $(_HERE_):
INCLUDES += "-I$(_HERE_)/../include"
LIBRARIES =+ $(_SPACE_) "-L$(_HERE_)/../lib64"
EOF
}

# Keeps the headers and the one library that loads the others, as those are large.
get_cudnn() { # REQUIREMENT
  pip download -q --no-cache-dir --disable-pip-version-check --no-deps "$1"
  python3 - <<'EOF'
import glob, re, zipfile
wheel, = glob.glob("*.whl")
with zipfile.ZipFile(wheel) as packed:
    for name in packed.namelist():
        if re.search(r"/include/.*\.h$|/libcudnn\.so", name):
            packed.extract(name)
EOF
  rm ./*.whl
}

for combination in "${combinations[@]}"; do
  read -r toolkit release compiler compiler_release cudnn <<<"$combination"
  echo "== toolkit $toolkit, g++ $compiler, $cudnn"
  read -ra libraries <<<"${also[$toolkit]}"
  once "cuda-$toolkit" get_toolkit "$release" nvidia-cuda-toolkit nvidia-cuda-dev "${libraries[@]}"
  once "g++-$compiler" get_compiler "$compiler" "$compiler_release"
  once "$cudnn" get_cudnn "$cudnn"

  cuda=$folder/cuda-$toolkit
  cxx=$folder/g++-$compiler/usr/bin/g++-$compiler
  version=${cudnn##*=}
  build=$folder/build-$toolkit-$version
  rm -rf "$build"
  { cmake -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DFACEZOO_PLATFORM=cuda \
    -DFACEZOO_TESTS=OFF -DFACEZOO_TOOL=OFF -DCUDAToolkit_ROOT="$cuda" \
    -DcuDNN_ROOT="$folder/$cudnn/nvidia/cudnn" -DCMAKE_CXX_COMPILER="$cxx" \
    -DCMAKE_CUDA_HOST_COMPILER="$cxx" && cmake --build "$build"; } >"$build.log" 2>&1 || {
    cat "$build.log" >&2
    exit 1
  }
  grep '^-- CUDA toolkit' "$build.log"
  if grep -i warning "$build.log" >&2; then exit 1; fi
  check_exports "$build/libfacezoo.so"
  check_device_code "$build/libfacezoo.so" 50 60
  loads=$(readelf -d "$build/libfacezoo.so")
  for library in "cudart.so.${toolkit%%.*}" "cublas.so.${toolkit%%.*}" "cudnn.so.${version%%.*}"; do
    grep -qF "[lib$library" <<<"$loads" || {
      echo "not linked against lib$library" >&2
      exit 1
    }
  done
done
