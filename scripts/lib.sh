# Sourced by the other scripts: a Wine server of our own and a real clamd, both ended with the script.

top=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
clamd_pid=
clamd_folder=

finish() {
  if [ -n "$clamd_pid" ]; then kill "$clamd_pid" 2>/dev/null && wait "$clamd_pid" 2>/dev/null; fi
  if [ -n "$clamd_folder" ]; then rm -rf "$clamd_folder"; fi
  if [ -n "${WINEPREFIX:-}" ]; then wineserver -k 2>/dev/null || true; fi
}

build() { # PRESET [ARGUMENT...]
  (cd "$top" && cmake --preset "$1" >/dev/null && cmake --build --preset "$@")
}

# Keeps a server alive for the prefix build/wine-NAME: programs then start in a fraction of the time.
start_wine() { # NAME
  export WINEPREFIX="$top/build/wine-$1" WINEARCH=win32 WINEDEBUG="${WINEDEBUG:--all}"
  mkdir -p "$WINEPREFIX"
  wineserver -p
  "$top/scripts/wine" wineboot >/dev/null 2>&1
}

# Assembled only here: a file that holds the whole string is quarantined on many machines.
eicar() {
  printf '%s%s' 'X5O!P%@AP[4\PZX54(P^)7CC)7}$EICAR-' 'STANDARD-ANTIVIRUS-TEST-FILE!$H+H*'
}

clamd_answers() { # PORT
  local reply=
  exec 3<>"/dev/tcp/127.0.0.1/$1" || return 1
  printf 'zPING\0' >&3
  IFS= read -r -t 2 -d '' reply <&3 || true
  exec 3>&-
  [ "$reply" = PONG ]
}

# Waits up to 30 s for an engine, or for the process PID to end.
wait_for_engine() { # PORT [PID]
  local tries
  for tries in $(seq 300); do
    if (clamd_answers "$1") 2>/dev/null; then return 0; fi
    if [ $# -gt 1 ] && ! kill -0 "$2" 2>/dev/null; then return 1; fi
    sleep 0.1
  done
  return 1
}

# Starts a clamd that knows one signature, the EICAR test string, on a free loopback port and sets
# clamd_port.
start_clamd() { # [SETTING]
  clamd_folder=$(mktemp -d)
  mkdir "$clamd_folder/db"
  echo "Eicar-Test-Signature:0:0:$(eicar | od -An -v -tx1 | tr -d ' \n')" >"$clamd_folder/db/eicar.ndb"
  local attempt
  for attempt in 1 2 3 4 5; do
    clamd_port=$((20000 + RANDOM % 10000))
    cat >"$clamd_folder/clamd.conf" <<CONF
TCPSocket $clamd_port
TCPAddr 127.0.0.1
DatabaseDirectory $clamd_folder/db
StreamMaxLength 64M
SelfCheck 0
${1:-}
CONF
    clamd --foreground --config-file="$clamd_folder/clamd.conf" >"$clamd_folder/log" 2>&1 &
    clamd_pid=$!
    if wait_for_engine "$clamd_port" "$clamd_pid"; then return 0; fi
    kill "$clamd_pid" 2>/dev/null || true
    wait "$clamd_pid" 2>/dev/null || true
    clamd_pid=
  done
  echo "clamd does not answer:" >&2
  cat "$clamd_folder/log" >&2
  return 1
}
