#!/usr/bin/env bash
# Shows what processes that run at once take from each other: `facezoo bench` alone, and as many of it at a
# time as are asked for, by turns. Each has as many threads as there are processors.
#   bench/neighbours.sh [NET [PROCESSES [ROUNDS]]]     default: LCNN29 2 5
. "$(dirname "$0")/../scripts/prelude.sh"
network=${1:-LCNN29} processes=${2:-2} rounds=${3:-5}
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT

images_per_second() { # PROCESSES: of all together
  local i
  for ((i = 0; i < $1; ++i)); do
    build/host/bin/facezoo bench "$network" --batch 1 --seconds 3 --format csv >"$dir/$i.csv" &
  done
  wait
  awk -F, 'FNR == 1 { for (i = 1; i <= NF; ++i) if ($i == "images_per_s") c = i } FNR == 2 { sum += $c }
    END { print sum }' "$dir"/*.csv
  rm "$dir"/*.csv
}

for ((round = 0; round < rounds; ++round)); do
  echo "$(images_per_second 1) $(images_per_second "$processes")"
done | awk '{ print "alone " $1 " images/s, together " $2 ", ratio " $2 / $1 }'
