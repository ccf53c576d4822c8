# Sourced by the other scripts: one line for each step, a Wine server of our own and a real clamd. What a
# script starts and makes with these functions ends with it, however it ends.

top=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
prefixes=()

step() {
  echo "${0##*/}: $*" >&2
}

complain() {
  step "$@"
  return 1
}

# Starts a command in a process group of its own, so that all that it starts can be ended with it.
start() {
  set -m
  "$@" </dev/null 9>&- &
  set +m
}

# Runs a command so that a signal to the script takes effect at once, not only when the command has ended.
run() {
  start "$@"
  wait "$!"
}

finish() {
  set +e
  trap '' INT TERM HUP PIPE ERR
  local jobs job prefix
  jobs=$(jobs -p)
  for job in $jobs; do kill -- "-$job"; done
  for prefix in "${prefixes[@]}"; do WINEPREFIX=$prefix "$top/scripts/wine" wineserver -k; done
  for job in $jobs; do
    for _ in {1..50}; do
      kill -0 "$job" || break
      sleep 0.1
    done
    kill -KILL -- "-$job"
  done
  # A program that was just starting has started a server for itself.
  for prefix in "${prefixes[@]}"; do WINEPREFIX=$prefix "$top/scripts/wine" wineserver -k; done
  rm -rf "$work"
} 2>/dev/null

work=$(mktemp -u -t kestoav.XXXXXXXX)  # named first and made later, so that no signal comes between the two
trap finish EXIT
trap 'exit 129' HUP
trap 'exit 130' INT
trap 'exit 141' PIPE
trap 'exit 143' TERM
mkdir -m 700 "$work"

# Two of these scripts at a time would build into one folder and share the Wine prefixes' processes.
alone() {
  mkdir -p "$top/build"
  exec 9<>"$top/build/lock"
  flock -n 9 || complain "scripts/$(cat "$top/build/lock") is at work in $top: wait for its end, or use another checkout"
  echo "${0##*/}" >"$top/build/lock"
}

configure() { # PRESET
  step "configuring build/$1"
  run cmake -S "$top" --preset "$1" >"$work/cmake.log" 2>&1 || { cat "$work/cmake.log" >&2 && return 1; }
}

build() { # PRESET [TARGET...]
  local preset=$1
  shift
  configure "$preset"
  step "building build/$preset"
  run cmake --build "$top/build/$preset" ${1:+--target "$@"} >&2
}

# Prepares the prefixes build/wine/NAME; programs run in the first one. Keeps a Wine server alive for each,
# with which programs start in a fraction of the time.
start_wine() { # NAME...
  local name booting=()
  step "starting Wine (the first time it makes its folders, build/wine)"
  for name in "$@"; do
    export WINEPREFIX="$top/build/wine/$name"
    prefixes+=("$WINEPREFIX")
    "$top/scripts/wine" wineserver -k 2>/dev/null || true  # left by a run that was killed
    [ -e "$WINEPREFIX/ready" ] || rm -rf "$WINEPREFIX"     # half made
    # Its output does not matter: at its end it lists objects that outlived their processes.
    "$top/scripts/wine" wineserver -p 2>/dev/null
    start "$top/scripts/wine" wineboot >"$work/wine-$name.log" 2>&1
    booting+=("$!")
  done
  for name in "$@"; do
    wait "${booting[0]}" || complain "Wine does not start: $(cat "$work/wine-$name.log")"
    touch "$top/build/wine/$name/ready"
    booting=("${booting[@]:1}")
  done
  export WINEPREFIX="$top/build/wine/$1"
}

# It is put together only here, since many machines quarantine files that hold the whole string.
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

# Waits up to 60 s for an engine, or for the process PID to end.
wait_for_engine() { # PORT [PID]
  local end=$((SECONDS + 60))
  while [ "$SECONDS" -lt "$end" ]; do
    if (clamd_answers "$1") 2>/dev/null; then return 0; fi
    if [ $# -gt 1 ] && ! kill -0 "$2" 2>/dev/null; then return 1; fi
    sleep 0.1
  done
  return 1
}

# Starts a clamd that knows one signature, the EICAR test string, on a free loopback port and sets
# clamd_port.
start_clamd() {
  local attempt
  step "starting clamd"
  mkdir "$work/clamd"
  echo "Eicar-Test-Signature:0:0:$(eicar | od -An -v -tx1 | tr -d ' \n')" >"$work/clamd/eicar.ndb"
  for attempt in 1 2 3 4 5; do
    clamd_port=$((20000 + RANDOM % 10000))
    cat >"$work/clamd.conf" <<CONF
TCPSocket $clamd_port
TCPAddr 127.0.0.1
DatabaseDirectory $work/clamd
TemporaryDirectory $work
StreamMaxLength 64M
SelfCheck 0
CONF
    start clamd --foreground --config-file="$work/clamd.conf" >"$work/clamd.log" 2>&1
    if wait_for_engine "$clamd_port" "$!"; then return 0; fi
    if kill "$!" 2>/dev/null; then break; fi  # the port was not the trouble
  done
  complain "clamd does not answer: $(cat "$work/clamd.log")"
}
