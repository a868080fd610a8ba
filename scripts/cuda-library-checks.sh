# Sourced by bash: what a CUDA build of the library must hold, whatever the toolkit.

exports() { nm -D --defined-only "$1" | awk '{print $3}' | sort; }

check_exports() { # LIBRARY
  diff <(exports build/host/libfacezoo.so) <(exports "$1")
  echo "exported names: the same $(exports "$1" | wc -l) as the host build"
}

check_device_code() { # WANTED FOUND: words, lines
  local wanted
  for wanted in $1; do
    grep -qxF "$wanted" <<<"$2" || {
      echo "no device code: $wanted" >&2
      return 1
    }
  done
  echo "device code: $1"
}
