#!/usr/bin/env bash
# Packs the release, unpacks the zip into a folder whose name has a blank in it and scans there; then has the set-up
# program install, upgrade and remove it. In a Wine prefix of its own, in which every process ends with the test.
set -euo pipefail
. "$(dirname "$0")/../scripts/lib.sh"

fail() { echo "FAILED: $*" >&2 && exit 1; }

if [ -z "${KESTOAV_TEST_CLAMD_PORT:-}" ]; then
  echo "skipped: KESTOAV_TEST_CLAMD_PORT names no clamd; scripts/test starts one" && exit 77
fi

pack() { # UMASK
  (umask "$1" && "$top/scripts/package") >"$work/packed" 2>&1 || fail "$(cat "$work/packed")"
  cat "$top"/build/release/kestoav-*-{win32.zip,setup.exe} | sha256sum
}
[ "$(pack 022)" = "$(pack 077)" ] || fail "two packings of one commit differ"

(cd "$work" && openssl req -x509 -newkey rsa:2048 -nodes -subj /CN=KESTO -addext extendedKeyUsage=codeSigning \
  -keyout key.pem -out certificate.pem && echo 'pass word' >password &&
  openssl pkcs12 -export -inkey key.pem -in certificate.pem -passout file:password -out key.pfx) 2>/dev/null
KESTOAV_SIGN_PFX="$work/key.pfx" KESTOAV_SIGN_PASSWORD_FILE="$work/password" pack 022 >/dev/null

installed="$work/KESTO AV"
unzip -q "$top"/build/release/kestoav-*-win32.zip -d "$installed"
cd "$installed"
signed() { osslsigncode verify -CAfile "$work/certificate.pem" -in "$1" >"$work/verified" || fail "$1: $(cat "$work/verified")"; }
for program in *.dll *.exe plugins/kestoav/*.exe "$top"/build/release/kestoav-*-setup.exe; do
  signed "$program"
  [[ $program = *.dll ]] || grep -q 'supportedOS Id="{35138b9a-' "$program" || fail "$program has no manifest"
done
files=$(find . -type f | sort | xargs)
[ "$files" = "./CHANGES.txt ./CLAMDLL.dll ./INSTALL.txt ./KESTOSCAN.txt ./OPERATIONS.txt ./README.txt \
./SETTINGS.txt ./THIRD-PARTY.txt ./TROUBLESHOOTING.txt ./kestoav.ini ./kestoscan.exe \
./monitoring/alerts.yml ./plugins/kestoav/bridge.ini ./plugins/kestoav/kestoav.exe \
./plugins/kestoav/kestoavu.exe ./plugins/kestoav/kestobridge.exe" ] || fail "the zip holds $files"
for text in *.txt *.ini plugins/kestoav/*.ini; do
  if grep -qv $'\r$' "$text"; then fail "$text has lines that do not end in CR LF"; fi
done
if grep -l -F -e "$top" -e "$(eicar)" -r .; then fail "these tell where they were built, or are reported as infected"; fi

# As shipped, but for the ports: nothing else on this machine may depend on them.
port=$(perl -MIO::Socket::INET -e 'print IO::Socket::INET->new(Listen => 1, LocalAddr => "127.0.0.1:0")->sockport')
sed -i "s/^servers=.*/servers=127.0.0.1:$port\r/" kestoav.ini
sed -i "s/^listen=.*/listen=127.0.0.1:$port\r/
  s/^upstreams=.*/upstreams=127.0.0.1:$KESTOAV_TEST_CLAMD_PORT\r/" plugins/kestoav/bridge.ini
touch kestoav.log
echo 'Nothing to see here.' >"$work/clean.txt"
eicar >"$work/eicar.com"

# Runs a program to its end; what it says goes into $work/said.
run_to() { # EXIT_CODE PROGRAM ARGUMENT...
  local status=0 expected=$1
  shift
  "$top/scripts/wine" "$@" >"$work/said" 2>&1 4>&- || status=$?
  [ "$status" -eq "$expected" ] || fail "$* ended with $status: $(cat "$work/said")"
}
start_engine() { # FOLDER
  "$top/scripts/wine" "$1/plugins/kestoav/kestoav.exe" >/dev/null 2>&1 4>&- &
  wait_for_engine "$port" || fail "the engine does not answer"
}
start_wine package
cd "$work"
start_engine "$installed"
run_to 1 "$installed/kestoscan.exe" clean.txt eicar.com
[[ $(<said) = *"clean.txt: OK"*"eicar.com: Eicar-Test-Signature.UNOFFICIAL FOUND"* ]] || fail "the scan says $(<said)"
if grep restarting "$installed/kestoav.log"; then fail "the engine was restarted"; fi

run_to 0 "$installed/kestoscan.exe" --check
"$top/scripts/wine" "$installed/kestoscan.exe" --stats | tee stats | promtool check metrics ||
  fail "Prometheus refuses the numbers"
# This clamd has no signatures of which it could tell the age.
for name in $(grep -o 'kestoav_[a-z_]*' "$installed/monitoring/alerts.yml" | grep -v signatures); do
  grep -q "^$name[{ ]" stats || fail "an alarm asks for $name, which is not among the numbers"
done
run_to 0 taskkill /f /im kestoav.exe

# The set-up program. Where something else on this machine has the usual port, its check fails.
if grep -E '\bExec[A-Za-z]* ' "$top/release/setup.nsi" | grep -Ev "Exec[A-Za-z]* '\"[\$](INSTDIR|PLUGINSDIR|SYSDIR)[\\]"; then
  fail "these start a program by less than its path"
fi
setup() { # EXIT_CODE ARGUMENT...
  run_to "$1" "$top"/build/release/kestoav-*-setup.exe /S "${@:2}"
}
rights() { sed -n 's/.*icacls[.ex"]* //p' "$1" | tr -s '\\' | tr -d '"\r' | sed "s/KestoAV/KESTO/; s/MAILSVC/$(id -un)/"; } # FILE
listens() { (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null; }
program='HKLM\Software\Microsoft\Windows\CurrentVersion\Uninstall\KESTO AV'
"$top/scripts/wine" reg delete "$program" /f >"$work/said" 2>&1 || true
rm -rf "$WINEPREFIX/drive_c/KESTO"
mkdir "$WINEPREFIX/drive_c/KESTO"
cd "$WINEPREFIX/drive_c/KESTO"
setup 3 '/D=C:\KESTO' /UPSTREAMS=127.0.0.1:0
grep -q "upstreams: '127.0.0.1:0' is not host:port" "$work/said" || fail "the set-up says $(cat "$work/said")"
setup 3 '/D=C:\KESTO' /ACCOUNT=nobody.of.this.name
setup 3 '/D=C:\KESTO' /WHAT
setup 3 "/D=C:\\KESTO\\$(printf '%220s' '' | tr ' ' x)"
[ -z "$(ls)" ] || fail "a refused set-up leaves $(ls)"
expected=0
if listens 3313; then expected=7; fi
# There are no files before the folder is closed to others. Wine's icacls only tells what it should do.
icacls=$WINEPREFIX/drive_c/windows/system32/icacls.exe
mv "$icacls" "$work/icacls" && touch "$icacls"
(setup 5 '/D=C:\KESTO') || touch failed
mv "$work/icacls" "$icacls"
[ -z "$(find . -type f)" ] || fail "there are files before the rights are set"
export WINEDEBUG=-all,fixme+icacls
setup "$expected" '/D=C:\KESTO' "/UPSTREAMS=127.0.0.1:$KESTOAV_TEST_CLAMD_PORT" "/ACCOUNT=$(id -un)"
diff <(rights "$work/said") <(rights "$installed/INSTALL.txt") || fail "the set-up sets other rights than INSTALL.txt says"
signed uninstall.exe
[ -e plugins/kestoav/kestoavu.exe ] || fail "there is no updater"

# A scan leaves no engine behind. An upgrade keeps the settings and a foreign updater, ends the engine, and is refused
# while a host has the plug-in.
sed -i "s/^servers=.*/servers=127.0.0.1:$port\r/" kestoav.ini
sed -i "s/^listen=.*/listen=127.0.0.1:$port\r/" plugins/kestoav/bridge.ini
sha256sum kestoav.ini plugins/kestoav/bridge.ini >"$work/settings"
cp "$work/eicar.com" .
run_to 1 kestoscan.exe eicar.com
if listens "$port"; then fail "the engine stays behind"; fi
cp "$WINEPREFIX/drive_c/windows/system32/hostname.exe" plugins/kestoav/kestoavu.exe  # of the administrator's own
sha256sum plugins/kestoav/kestoavu.exe >>"$work/settings"
start_engine .
touch kestoscan.exe.old  # by an earlier set-up program
setup 0
if listens "$port"; then fail "an upgrade leaves the engine"; fi
sha256sum -c --quiet "$work/settings" || fail "an upgrade changes what is the administrator's"
[ -z "$(find . -name '*.old*' -o -name '*_')" ] || fail "an upgrade leaves $(find . -type f | xargs)"
mkfifo "$work/pipe"
exec 4<>"$work/pipe"
"$top/scripts/wine" kestoscan.exe - <"$work/pipe" >"$work/scanned" 2>&1 4>&- &
host=$!
timeout 60 head -c 100000 /dev/zero >&4 || fail "kestoscan reads nothing"  # more than a pipe holds
setup 4
run_to 4 uninstall.exe /S '_?=C:\KESTO'
exec 4>&-
wait "$host" || fail "the scan ends with $?: $(cat "$work/scanned")"

"$top/scripts/wine" uninstall.exe /S >"$work/said"  # goes on by a copy of itself
for _ in {1..300}; do
  "$top/scripts/wine" reg query "$program" >"$work/said" 2>&1 || break
  sleep 0.1
done
files=$(find . -type f | sort | xargs)
[ "$files" = "./eicar.com ./kestoav.ini ./logs/bridge.log ./logs/kestoav.log \
./plugins/kestoav/bridge.ini ./plugins/kestoav/kestoavu.exe" ] || fail "uninstalling leaves $files"

# Where anything else is, the folder keeps its rights.
setup 0 '/D=C:\KESTO'
if rights "$work/said" | grep -v '^C:.KESTO.plugins.kestoav'; then fail "the set-up takes what something else uses"; fi
