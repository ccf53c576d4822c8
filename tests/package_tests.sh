#!/usr/bin/env bash
# Packs the release, unpacks it into a folder whose name has a blank in it and scans there: through a Wine
# prefix of its own, in which every process ends with the test.
set -euo pipefail
. "$(dirname "$0")/../scripts/lib.sh"

fail() { echo "FAILED: $*" >&2 && exit 1; }

if [ -z "${KESTOAV_TEST_CLAMD_PORT:-}" ]; then
  echo "skipped: KESTOAV_TEST_CLAMD_PORT names no clamd; scripts/test starts one" && exit 77
fi

pack() { # UMASK
  (umask "$1" && "$top/scripts/package") >"$work/packed" 2>&1 || fail "$(cat "$work/packed")"
  sha256sum <"$(echo "$top"/build/release/kestoav-*-win32.zip)"
}
first=$(pack 022)
second=$(pack 077)
[ "$first" = "$second" ] || fail "two packings of one commit differ"

(cd "$work" && openssl req -x509 -newkey rsa:2048 -nodes -subj /CN=KESTO -addext extendedKeyUsage=codeSigning \
  -keyout key.pem -out certificate.pem && echo 'pass word' >password &&
  openssl pkcs12 -export -inkey key.pem -in certificate.pem -passout file:password -out key.pfx) 2>/dev/null
KESTOAV_SIGN_PFX="$work/key.pfx" KESTOAV_SIGN_PASSWORD_FILE="$work/password" pack 022 >/dev/null

installed="$work/KESTO AV"
unzip -q "$top"/build/release/kestoav-*-win32.zip -d "$installed"
cd "$installed"
signed() { osslsigncode verify -CAfile "$work/certificate.pem" -in "$1" >"$work/verified" || fail "$1: $(cat "$work/verified")"; }
for program in *.dll *.exe plugins/kestoav/*.exe; do signed "$program"; done
files=$(find . -type f | sort | xargs)
[ "$files" = "./CHANGES.txt ./CLAMDLL.dll ./INSTALL.txt ./KESTOSCAN.txt ./OPERATIONS.txt ./README.txt \
./SETTINGS.txt ./THIRD-PARTY.txt ./TROUBLESHOOTING.txt ./kestoav.ini ./kestoscan.exe \
./monitoring/alerts.yml ./plugins/kestoav/bridge.ini ./plugins/kestoav/kestoav.exe" ] || fail "the zip holds $files"
for text in *.txt *.ini plugins/kestoav/*.ini; do
  if grep -qv $'\r$' "$text"; then fail "$text has lines that do not end in CR LF"; fi
done
if grep -l -F "$top" -r .; then fail "these tell where they were built"; fi

# As shipped, but for the ports: nothing else on this machine may depend on them.
port=$(perl -MIO::Socket::INET -e 'print IO::Socket::INET->new(Listen => 1, LocalAddr => "127.0.0.1:0")->sockport')
sed -i "s/^servers=.*/servers=127.0.0.1:$port\r/" kestoav.ini
sed -i "s/^listen=.*/listen=127.0.0.1:$port\r/
  s/^upstreams=.*/upstreams=127.0.0.1:$KESTOAV_TEST_CLAMD_PORT\r/" plugins/kestoav/bridge.ini
touch kestoav.log
echo 'Nothing to see here.' >"$work/clean.txt"
eicar >"$work/eicar.com"

start_wine package
cd "$work"
status=0
"$top/scripts/wine" "$installed/kestoscan.exe" clean.txt eicar.com >scanned 2>&1 || status=$?
tr -d '\r' <scanned
[ "$status" -eq 1 ] || fail "kestoscan ended with $status"
grep -q '^clean.txt: OK' scanned || fail "the clean sample is not clean"
grep -q '^eicar.com: Eicar-Test-Signature.UNOFFICIAL FOUND' scanned || fail "EICAR is not found"
grep -q 'started .*kestoav.exe' scanned || fail "the engine was not started"
if grep restarting "$installed/kestoav.log"; then fail "the engine was restarted"; fi

"$top/scripts/wine" "$installed/kestoscan.exe" --check || fail "the check found a fault"

"$top/scripts/wine" "$installed/kestoscan.exe" --stats | promtool check metrics || fail "Prometheus refuses the numbers"
