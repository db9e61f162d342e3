#!/bin/sh
# check.sh NAME MODEL C-COMPILER holds|loops|fails [DEFINITION...]: searches all states of a model. `holds` expects
# that no assertion fails and that every process reaches a valid end state, `loops` that none loops for ever, and
# `fails` that the search finds an error.
set -u

name=$1 model=$(realpath "$2") compiler=$3 expected=$4
shift 4
if ! command -v spin >/dev/null; then
  printf '%s: Skipped\nspin is not installed\n' "$name"
  exit 77
fi
folder=$(mktemp -d) || exit 1
trap 'rm -rf "$folder"' EXIT
cd "$folder" || exit 1

spin -a "$@" "$model" || exit 1
case $expected in
  loops) "$compiler" -O0 -w -DNP -o pan pan.c && ./pan -l -m10000 >outcome 2>&1 ;;
  *) "$compiler" -O0 -w -DSAFETY -o pan pan.c && ./pan -m10000 >outcome 2>&1 ;;
esac || exit 1
grep -E '^pan:|errors: |states, stored|actual memory usage$|^(error|warning)' outcome
# A search that was cut off reports no errors either, but it prints a warning.
if [ "$expected" = fails ]; then
  grep -qE '^pan:1: (assertion violated|invalid end state)' outcome
else
  grep -q 'errors: 0$' outcome && ! grep -qE '^pan:[0-9]|^error|^warning|not completed' outcome
fi
