#!/bin/sh
# S90swu start and stop with a stand-in daemon that writes down its standard
# input and the working directory it found.
#   test_s90swu.sh PATH/TO/S90swu
set -eu
t=$(mktemp -d)
trap 'rm -rf "$t"' EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }

mkdir -p "$t/bin" "$t/work/keep.d" "$t/staging"
cat >"$t/bin/swu" <<STANDIN
#!/bin/sh
ls -A >"$t/found.tmp"
readlink /proc/\$\$/fd/0 >>"$t/found.tmp"
mv "$t/found.tmp" "$t/found"
exec sleep 30
STANDIN
chmod +x "$t/bin/swu"
sed "s|@SWU_SBINDIR@|$t/bin|" "$1" >"$t/S90swu"
printf 'SWU_WORKDIR=%s\nPIDFILE=%s\nSWU_STAGING=%s\n' "$t/work" "$t/swu.pid" "$t/staging" >"$t/defaults"
export SWU_DEFAULTS="$t/defaults"

echo "earlier, longer package" >"$t/work/update-2.0.0.swu"
echo "-" >"$t/work/-"
echo "last run" >"$t/work/swu.log"
echo "artifact" >"$t/staging/a.bin"

echo "not for the daemon" | sh "$t/S90swu" start >/dev/null
for _ in $(seq 100); do [ -f "$t/found" ] && break; sleep 0.1; done
[ -f "$t/found" ] || fail "the daemon did not start"
sh "$t/S90swu" stop >/dev/null

expected="keep.d
swu.log
swu.log.0
/dev/null"
[ "$(cat "$t/found")" = "$expected" ] || fail "the daemon found: $(cat "$t/found")"
[ "$(cat "$t/work/swu.log.0")" = "last run" ] || fail "the last run's log was not kept"
[ ! -e "$t/staging" ] || fail "the staging directory stayed"
echo "ok"
