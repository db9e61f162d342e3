#!/bin/sh
# Writes product.ini, the node's division of its CPUs, into a folder:  gen_product_ini.sh FOLDER
# A group for each NUMA node: all of its CPUs, the half that polls for input and output, and the half for services.
set -eu
folder=${1:?usage: gen_product_ini.sh FOLDER}

# "0-3,8" becomes one number a line.
cpus() {
  tr ',' '\n' | while IFS=- read -r first last; do seq "$first" "${last:-$first}"; done
}

# Numbers, one a line and rising, become "0-3,8".
ranges() {
  awk '
    function close_range() { list = list sep (first == last ? first : first "-" last); sep = "," }
    NR > 1 && $1 == last + 1 { last = $1; next }
    { if (NR > 1) close_range(); first = last = $1 }
    END { if (NR > 0) close_range(); print list }'
}

lists=$(cat /sys/devices/system/node/node*/cpulist 2>/dev/null || cat /sys/devices/system/cpu/online)
group=0
groups=$(for list in $lists; do
  count=$(echo "$list" | cpus | wc -l)
  half=$(((count + 1) / 2))
  printf '\n[GROUP_%d]\npartition_num=3\n' "$group"
  printf 'partition_0=ALL:0:%s\n' "$list"
  printf 'partition_1=IOD_NORMAL:1:%s\n' "$(echo "$list" | cpus | head -n "$half" | ranges)"
  printf 'partition_2=SERVICE:2:%s\n' "$(echo "$list" | cpus | tail -n "$half" | ranges)"
  group=$((group + 1))
done)
count=$(echo "$groups" | grep -c '^\[GROUP_')
mkdir -p "$folder"
printf '[CPU_PARTITION]\ngroup_num=%d\n%s\n' "$count" "$groups" >"$folder/product.ini.new"
mv "$folder/product.ini.new" "$folder/product.ini"
