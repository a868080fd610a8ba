#!/usr/bin/env bash
# Writes the generated tables of the pages; with --check, only says where a page differs from them.
#   docs/generate.sh [--check] [GENERATOR]    default: the host build's
. "$(dirname "$0")/../scripts/prelude.sh"

check=false
if [ "${1:-}" = --check ]; then check=true && shift; fi
generator=${1:-build/host/bin/facezoo-doc-tables}
page=$(mktemp)
trap 'rm -f "$page"' EXIT

status=0
for file in README.md docs/*.md; do
  "$generator" <"$file" >"$page" || { echo "$file was left as it is" >&2 && exit 1; }
  cmp -s "$file" "$page" && continue
  if $check; then
    diff -u --label "$file" --label "what docs/generate.sh would write" "$file" "$page" || status=1
  else
    cat "$page" >"$file" && echo "wrote $file"
  fi
done
exit "$status"
