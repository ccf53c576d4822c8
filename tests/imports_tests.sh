#!/usr/bin/env bash
# Windows 7 or later is needed: the programs given import only what windows7_imports.txt lists.
set -euo pipefail
for program in "$@"; do
  imports=$(i686-w64-mingw32-objdump -p "$program" |
    awk '/DLL Name:/ {dll = tolower($3)} /export table/ {dll = ""} dll && NF == 3 && $2 ~ /^[0-9]+$/ {print dll, $3}')
  newer=$(comm -23 <(sort -u <<<"$imports") <(sort -u "$(dirname "$0")/windows7_imports.txt"))
  if [ -z "$imports" ] || [ -n "$newer" ]; then
    echo "$program imports what is not known to be in Windows 7: $newer" >&2
    exit 1
  fi
done
