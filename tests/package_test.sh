#!/usr/bin/env bash
# Builds the README's program, with its CMake lines, and the examples against the library, and runs them:
# against the installed library, the Debian packages, or the library as a part of the project.
#   package_test.sh installed|debian|embedded SOURCE_DIR BUILD_DIR
set -Eeuo pipefail
trap 'echo "line $LINENO: $BASH_COMMAND"' ERR
source_dir=$2 build_dir=$3
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
unset CPATH LIBRARY_PATH PKG_CONFIG_PATH CMAKE_PREFIX_PATH
tool=$build_dir/bin/facezoo
warnings='-Wall -Wextra -Werror'

block() { sed -n "/^\`\`\`$1\$/,/^\`\`\`\$/p" "${2:-$source_dir/README.md}" | sed '/^```/d'; }
fail() {
  echo "$*" >&2
  exit 1
}

prepare() {
  mkdir "$dir/application"
  block cpp >"$dir/application/application.cpp"
  test "$(wc -l <"$dir/application/application.cpp")" -ge 10
  project "$(block cmake)"
  "$tool" weights synth DexpressionNet -o "$dir/DexpressionNet" >/dev/null
  head -c $((224 * 224)) /dev/zero >"$dir/grey"
}
project() { # CMAKE_LINES
  printf '%s\n' 'cmake_minimum_required(VERSION 3.25)' 'project(application CXX)' \
    'add_executable(application application.cpp)' "$1" >"$dir/application/CMakeLists.txt"
}
configure() { # SOURCE FOLDER OPTION...
  cmake -G Ninja -S "$1" -B "$dir/$2" -DCMAKE_CXX_FLAGS="$warnings" "${@:3}" >"$dir/log" 2>&1
}
build() { # SOURCE FOLDER OPTION...
  { configure "$@" && cmake --build "$dir/$2" >"$dir/log" 2>&1; } || fail "$(cat "$dir/log")"
}
run() { # PROGRAM: the two heads sum to 1
  "$1" "$dir/DexpressionNet" "$dir/grey" | awk '{ sum[NR <= 2] += $1 }
    END { exit !(NR == 5 && (sum[0] - 1) ^ 2 < 1e-6 && (sum[1] - 1) ^ 2 < 1e-6) }' ||
    fail "wrong results of $1"
}

# Neither a missing file nor a missing argument ends it by a signal, and the library's line is seen.
misuse() { # PROGRAM [ARGUMENT...]
  local code=0
  "$@" >"$dir/log" 2>&1 || code=$?
  [[ $code = [12] && -s $dir/log ]] || fail "$* ended with $code: $(cat "$dir/log")"
}

use_cmake() { # PREFIX STANDARD
  build "$dir/application" "cmake$2" -DCMAKE_PREFIX_PATH="$1" -DCMAKE_CXX_STANDARD="$2"
  run "$dir/cmake$2/application"
  misuse "$dir/cmake$2/application"
  misuse "$dir/cmake$2/application" "$dir/DexpressionNet" "$dir/none"
  misuse "$dir/cmake$2/application" "$dir/none" "$dir/grey"
  grep -qx 'Weight file not found.' "$dir/log"
}
use_pkg_config() { # PREFIX
  local path flags
  path=$(find "$1" -name pkgconfig)
  read -ra flags < <(PKG_CONFIG_PATH=$path pkg-config --cflags --libs facezoo)
  # shellcheck disable=SC2086 # several words
  g++ -std=c++14 $warnings "$dir/application/application.cpp" -o "$dir/linked" "${flags[@]}"
  LD_LIBRARY_PATH=$(PKG_CONFIG_PATH=$path pkg-config --variable=libdir facezoo) run "$dir/linked"
}
# Each header stands alone, and what it defines needs nothing that the library hides. An application's
# own files of common names are found, and its own MessagePack: any interface, with Boost or without.
use_headers() { # PREFIX
  local include=$1/include/facezoo own=$dir/own flags folders name order version
  flags=$(PKG_CONFIG_PATH=$(find "$1" -name pkgconfig) pkg-config --cflags --libs facezoo)
  mkdir -p "$own/facezoo" "$dir/boostless"
  for name in check errors export layer network pool tensor version; do
    echo "#define OWN_$name" | tee "$own/$name.h" >"$own/facezoo/$name.h"
    printf '#include "%s.h"\n#ifndef OWN_%s\n#error\n#endif\n' $name $name
  done >"$own/own.cpp"
  sed -i '1i #define CheckCuda own\nstruct PoolBlock {};\n#include <facezoo.h>' "$own/own.cpp"
  cat >"$own/pack.cpp" <<'EOF'
#ifdef BEFORE
#include <msgpack.hpp>
#endif
#include <facezoo.h>
#include <msgpack.hpp>
void pack(msgpack::sbuffer& out, Network* net) {
  msgpack::pack(out, net->getWidth() + FACEZOO_VERSION);
  msgpack::unpacked document = msgpack::unpack(out.data(), out.size());
  net->openMsgPack("", document);
}
EOF
  ln -s /usr/include/* "$dir/boostless"
  rm -f "$dir/boostless/boost"
  folders=$(g++ -E -v -xc++ /dev/null 2>&1 >/dev/null |
    sed -n "s,^ /usr/include\$, $dir/boostless,; s,^ \(/[^ ]*\)\$,-isystem \1,p")
  {
    find "$include" -name '*.h' -printf "-include %P /dev/null $flags\n"
    echo "-I$own $own/own.cpp $flags"
    echo "$own/own.cpp $flags -I$own"
    for version in 1 2 3; do
      for order in BEFORE AFTER; do
        echo "-D$order -DMSGPACK_DEFAULT_API_VERSION=$version $own/pack.cpp $flags"
      done
    done
    echo "-DMSGPACK_NO_BOOST $own/pack.cpp $flags"
    for name in failures threads; do
      block cpp "$source_dir/docs/$name.md" >"$own/$name.cpp"
      grep -q '#include <facezoo.h>' "$own/$name.cpp" && echo "$own/$name.cpp $flags"
    done
    echo "-nostdinc ${folders//$'\n'/ } $own/pack.cpp $flags"
  } | sed "s/^/g++ -xc++ -std=c++14 $warnings -fsyntax-only /" |
    xargs -P "$(nproc)" -I{} sh -c '{} || exit 255' 2>"$dir/log" || fail "$(cat "$dir/log")"
  # shellcheck disable=SC2086 # several words
  echo 'int main() {}' | g++ -std=c++14 -fkeep-inline-functions -include facezoo.h -xc++ - -xnone \
    $flags -o "$dir/kept"
}
check_links() { # FOLDER
  local page link
  find "$1" -name '*.md' | while read -r page; do
    { grep -oP '\]\(\K[^)#:]+(?=[)#])' "$page" || true; } | while read -r link; do
      test -e "$(dirname "$page")/$link" || echo "$page: no $link"
    done
  done >"$dir/log"
  test ! -s "$dir/log" || fail "$(cat "$dir/log")"
}
refuse() { # PREFIX MESSAGE CMAKE_LINE OPTION...
  project "$3"
  ! configure "$dir/application" refused -DCMAKE_PREFIX_PATH="$1" "${@:4}" || fail "accepted: $3"
  tr -s ' \n' ' ' <"$dir/log" | grep -qF "$2" || fail "expected '$2', found: $(cat "$dir/log")"
  rm -r "$dir/refused"
}

# A picture of the network's size reaches it byte for byte.
compare_with_tool() { # PROGRAM
  python3 - "$dir/noise" <<'EOF'
import random, struct, sys, zlib
noise, size = random.Random(1).randbytes(224 * 224), struct.pack(">2I5B", 224, 224, 8, 0, 0, 0, 0)
rows = b"".join(b"\0" + noise[i:i + 224] for i in range(0, len(noise), 224))
open(sys.argv[1], "wb").write(noise)
open(sys.argv[1] + ".png", "wb").write(b"\x89PNG\r\n\x1a\n" + b"".join(
    struct.pack(">I", len(body)) + kind + body + struct.pack(">I", zlib.crc32(kind + body))
    for kind, body in ((b"IHDR", size), (b"IDAT", zlib.compress(rows)), (b"IEND", b""))))
EOF
  "$tool" run DexpressionNet -w "$dir/DexpressionNet" --format csv "$dir/noise.png" |
    tail -n 1 | tr , '\n' | tail -n 5 | xargs printf '%f\n' >"$dir/found"
  "$1" "$dir/DexpressionNet" "$dir/noise" | cmp - "$dir/found"
}

# What the library throws is caught by type on the other side of the shared library's boundary.
catch_failures() { # PREFIX
  cat >"$dir/application/application.cpp" <<'EOF'
#include <DexpressionNet.h>
int main(int, char** argv) {
  int caught = 0;
  try { DexpressionNet net("", 1, ""); } catch (NetworkError e) { caught += e == 0; }
  try { DexpressionNet net("/dev/null", 1, ""); } catch (const msgpack::v1::insufficient_bytes&) { ++caught; }
  DexpressionNet net(argv[1], 1, "");
  try { net.Forward(nullptr, 1000000, nullptr, nullptr); } catch (TensorError) { ++caught; }
  try { net.Forward(nullptr, 1, nullptr, nullptr); } catch (cudaError) { ++caught; }
  return caught == 4 ? 0 : 1;
}
EOF
  build "$dir/application" cmake14 -DCMAKE_PREFIX_PATH="$1"
  "$dir/cmake14/application" "$dir/DexpressionNet" >/dev/null 2>&1
}

try_examples() { # PREFIX
  local name words bin=$dir/examples
  build "$1/share/doc/facezoo/examples" examples -DCMAKE_PREFIX_PATH="$1"
  for name in FANet LCNN29 GoogLeNet_FAA3ch_12tasks; do
    "$tool" weights synth $name -o "$dir/$name" >/dev/null
  done
  head -c $((224 * 224 * 3)) /dev/zero >"$dir/dark"
  tr '\0' '\177' <"$dir/dark" >"$dir/bright"
  for name in dark bright; do head -c $((128 * 128 * 3)) "$dir/$name" >"$dir/$name.small"; done
  head -c $((224 * 224)) "$dir/bright" >"$dir/white"

  "$bin/heads" "$dir/GoogLeNet_FAA3ch_12tasks" "$dir/dark" | awk '
    NR <= 7 { sum = 0; for (i = 2; i <= NF; ++i) sum += $i; wrong += (sum - 1) ^ 2 > 1e-4 }
    NR > 7 { wrong += NF != 2 } END { exit wrong || NR != 12 }' || fail "wrong heads"
  "$bin/landmarks" "$dir/FANet" "$dir/dark" | awk '
    NR <= 136 && NF == 1 || $1 == "norm" && $2 > 0 { ++right } END { exit right != 137 || NR != 137 }' ||
    fail "wrong landmarks"
  for name in "heads dark" "landmarks dark" "descriptors dark.small dark.small" "threads grey"; do
    read -ra words <<<"$name"
    misuse "$bin/${words[0]}"
    misuse "$bin/${words[0]}" "$dir/DexpressionNet" "${words[1]}.none"
    (cd "$dir" && misuse "$bin/${words[0]}" none "${words[@]:1}")
    grep -qx 'Weight file not found.' "$dir/log"
  done
  "$bin/descriptors" "$dir/LCNN29" "$dir/dark.small"{,} | grep -qx 'cosine similarity 1.0000'
  "$bin/descriptors" "$dir/LCNN29" "$dir/"{dark,bright}.small |
    awk '/similarity/ && $3 < 1 { exit 0 } /norms/ && $2 == $3 || /similarity/ { exit 1 }'
  "$bin/threads" "$dir/DexpressionNet" "$dir/"{grey,white,grey} >"$dir/threads"
  cmp <(head -n 5 "$dir/threads") <(tail -n 5 "$dir/threads")
  test "$(wc -l <"$dir/threads")" -eq 15
}

prepare
case $1 in
  installed)
    cmake --install "$build_dir" --prefix "$dir/first" >/dev/null
    mv "$dir/first" "$dir/prefix"
    use_cmake "$dir/prefix" 14
    use_cmake "$dir/prefix" 17
    use_pkg_config "$dir/prefix"
    compare_with_tool "$dir/cmake14/application"
    use_headers "$dir/prefix"
    check_links "$dir/prefix"
    try_examples "$dir/prefix"
    catch_failures "$dir/prefix"
    refuse "$dir/prefix" 'facezoo has no components; asked for: heads' \
      'find_package(facezoo REQUIRED COMPONENTS heads)'
    refuse "$dir/prefix" 'need msgpack.hpp, MessagePack for C++ (package libmsgpack-cxx-dev' \
      'find_package(facezoo REQUIRED)' -DFACEZOO_MSGPACK_INCLUDE_DIR=/nowhere
    refuse "$dir/prefix" 'compatible with requested version "0.0"' 'find_package(facezoo 0.0 REQUIRED)'
    ;;
  debian)
    cpack --config "$build_dir/CPackConfig.cmake" -B "$dir/deb" >"$dir/log" 2>&1 || fail "$(cat "$dir/log")"
    while read -r package depends; do
      dpkg-deb -x "$dir/deb/$package"_*.deb "$dir/root"
      dpkg-deb -f "$dir/deb/$package"_*.deb Depends | grep -qE "$depends" || fail "dependencies of $package"
    done <<'EOF'
libfacezoo0.1 libstdc\+\+6
libfacezoo-dev libfacezoo0.1 \(= [0-9.]+\), libmsgpack-cxx-dev
facezoo libfacezoo0.1 \(= [0-9.]+\), pv.*libspng0
EOF
    # The licence is its owner's to choose.
    lintian --allow-root --fail-on error,warning --suppress-tags no-copyright-file "$dir"/deb/*.deb
    check_links "$dir/root/usr/share/doc"
    tool=$dir/root/usr/bin/facezoo
    LD_LIBRARY_PATH=$(dirname "$(find "$dir/root" -name libfacezoo.so.0.1)")
    export LD_LIBRARY_PATH
    "$tool" info >/dev/null
    use_cmake "$dir/root/usr" 14
    use_pkg_config "$dir/root/usr"
    ;;
  embedded)
    project "add_subdirectory($source_dir facezoo)
      target_link_libraries(application PRIVATE facezoo::facezoo)"
    build "$dir/application" embedded -DFACEZOO_PLATFORM=host -DCMAKE_CXX_STANDARD=14
    run "$dir/embedded/application"
    # Tests, tool and warnings of the library stay away, and so does what it would install.
    ninja -C "$dir/embedded" -t targets all >"$dir/found"
    ninja -C "$dir/embedded" -t commands CMakeFiles/application.dir/application.cpp.o |
      grep application.cpp >>"$dir/found"
    if grep -E -e 'facezoo_(client|tests|tool|manual)|benchmark|-W(shadow|undef)|fno-math' "$dir/found"; then
      fail 'more than the library'
    fi
    cmake --install "$dir/embedded" --prefix "$dir/prefix" >/dev/null
    test ! -e "$dir/prefix"
    ;;
esac
