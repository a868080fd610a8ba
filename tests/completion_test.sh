#!/usr/bin/env bash
# Completion offers the commands, options and values that the tool's help lists.
#   completion_test.sh SOURCE_DIR TOOL
set -euo pipefail
# shellcheck disable=SC1091 # checked by itself
. "$1/tools/facezoo/completion.bash"
tool=$2 failures=0
networks=$("$tool" info --format json | grep -o '"network":"[^"]*' | cut -d '"' -f 4 | paste -sd ' ')
complete -p facezoo | grep -q -e '-o default' # of files, where there is nothing to offer

# Each line: the words before the cursor, of which the last may be incomplete | what is offered.
while IFS='|' read -r typed expected; do
  IFS=' ' read -ra COMP_WORDS <<<"$tool $typed"
  [ -n "${typed##* }" ] || COMP_WORDS+=('')
  COMP_CWORD=$((${#COMP_WORDS[@]} - 1)) COMPREPLY=()
  set +e
  _facezoo
  set -e
  [ "${COMPREPLY[*]}" = "$expected" ] || {
    echo "facezoo $typed: expected '$expected', found '${COMPREPLY[*]}'"
    failures=1
  }
done <<EOF
weigh|weights
weights c|check
weights n|names
weights check LC|LCNN29
weights check GoogLeNet_|GoogLeNet_FAA1ch GoogLeNet_FAA3ch GoogLeNet_FAA3ch_12tasks
weights check LCNN29 |
weights show |
run LCNN29 --format |table json csv
run LCNN29 --format = j|json
run LCNN29 --format =|table json csv
run LCNN29 --we|--weights
run LCNN29 -w |
run -w L|
run -w weights --prefix p LC|LCNN29
run run |$networks
--v|--version
EOF
exit $failures
