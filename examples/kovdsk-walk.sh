#!/usr/bin/env bash
# A walk through the library with the operator command, on a temporary
# root: each command is shown before what it prints.
#
# Usage: examples/kovdsk-walk.sh PATH-TO-kovdsk
# Run it in an IPC namespace of its own (scripts/walk does): the table it
# creates lasts, as on the appliance, until that namespace or the machine
# goes away.
set -euo pipefail
kovdsk=$1
root=$(mktemp -d "${TMPDIR:-/tmp}/kovdsk-walk-XXXXXX")
trap 'rm -rf "$root" "$root.in" "$root.out"' EXIT

run() {
  printf '\n$ kovdsk %s\n' "$*"
  "$kovdsk" "$@"
}

head -c 3000000 /dev/urandom > "$root.in"
run init "$root"
run mkdirs
run put report --kind 42 --area usr:abc:1 --short-tag q3 --long-tag "quarterly figures" \
  --deadline 2612312359 --input "$root.in"
run put scratch --kind 7 --temporary --input /etc/hostname
run ls --area general --human
run ls --area usr:abc:1 --json
run where report --kind 42
run get report --kind 42 --output "$root.out"
printf '\n$ cmp original read-back\n'
cmp "$root.in" "$root.out" && echo "the same 3000000 bytes"
run status
run rm report --kind 42
run sweep --temporary
run ls --area general
run users
