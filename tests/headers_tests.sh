#!/usr/bin/env bash
# What the headers of the programs given say: the system may load them anywhere and runs no data of theirs, and they
# import only what windows7_imports.txt lists, since Windows 7 or later is needed.
set -euo pipefail
for program in "$@"; do
  headers=$(i686-w64-mingw32-objdump -p "$program")
  # Without relocations, the first of these marks would mean nothing.
  if [[ ! $headers =~ DYNAMIC_BASE.*NX_COMPAT.*'Entry 5 '0*[1-9a-f] ]]; then
    echo "$program cannot be loaded anywhere, or its data can be run" >&2
    exit 1
  fi
  imports=$(awk '/DLL Name:/ {dll = tolower($3)} /export table/ {dll = ""} dll && NF == 3 && $2 ~ /^[0-9]+$/ {print dll, $3}' <<<"$headers")
  newer=$(comm -23 <(sort -u <<<"$imports") <(sort -u "$(dirname "$0")/windows7_imports.txt"))
  if [ -z "$imports" ] || [ -n "$newer" ]; then
    echo "$program imports what is not known to be in Windows 7: $newer" >&2
    exit 1
  fi
done
