#!/usr/bin/env bash
# Compares `facezoo run`, which also decodes pictures and writes a NumPy file, with the network alone, which
# `facezoo bench` times. They take turns, so that both meet the machine in the same state.
#   bench/tool.sh [NET [BATCH [PICTURES [ROUNDS]]]]     default: LCNN29 8 1000 3
. "$(dirname "$0")/../scripts/prelude.sh"
network=${1:-LCNN29} batch=${2:-8} pictures=${3:-1000} rounds=${4:-3}
tool=build/host/bin/facezoo
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT

mkdir "$dir/faces"
for ((i = 0; i < pictures; ++i)); do cp samples/portrait.jpg "$dir/faces/$i.jpg"; done
"$tool" weights synth "$network" -o "$dir/weights" >/dev/null
for ((round = 0; round < rounds; ++round)); do
  alone=$("$tool" bench "$network" -w "$dir/weights" --batch "$batch" --seconds 10 --format csv |
    awk -F, 'NR == 1 { for (i = 1; i <= NF; ++i) if ($i == "images_per_s") c = i } NR == 2 { print $c }')
  whole=$("$tool" run "$network" -w "$dir/weights" --batch "$batch" --features "$dir/values.npy" \
    --force "$dir/faces" | awk '{ print $(NF - 1) }')
  echo "$alone $whole"
done | awk '{ print "bench " $1 " images/s, run " $2 " pictures/s, ratio " $2 / $1 }'
