#!/bin/sh
# S90swu start and stop with a stand-in daemon that writes down what it found
# and then floods its output; under BusyBox's shell and tools, as on the
# terminal, when BusyBox is there.
#   test_s90swu.sh PATH/TO/S90swu PATH/TO/swu-logcap
set -eu
t=$(mktemp -d)
trap 'rm -rf "$t"' EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }

shell=sh
if command -v busybox >/dev/null; then
	mkdir "$t/bb"
	busybox --install -s "$t/bb"
	PATH="$t/bb:$PATH"
	shell="busybox sh"
fi

# A quote and a blank in the working directory's name.
w="$t/wo'rk dir"
mkdir -p "$t/bin" "$w/keep.d" "$t/staging"
cp "$2" "$t/bin/swu-logcap"
cat >"$t/bin/swu" <<STANDIN
#!/bin/sh
{ ls -A; readlink /proc/\$\$/fd/0; echo "pid \$\$"; echo "args \$*"; cat swu.log.0; } >"$t/found.tmp"
mv "$t/found.tmp" "$t/found"
i=0
while [ \$i -lt 4000 ]; do
	echo "packet \$i ........................................................................"
	i=\$((i + 1))
done
echo "last words"
exec sleep 30
STANDIN
chmod +x "$t/bin/swu"
sed "s|@SWU_SBINDIR@|$t/bin|" "$1" >"$t/S90swu"
quoted=$(printf '%s' "$w" | sed "s/'/'\\\\''/g")
cat >"$t/defaults" <<DEFAULTS
SWU_WORKDIR='$quoted'
PIDFILE=$t/swu.pid
SWU_STAGING=$t/staging
SWU_OPTS="-R *"
SWU_LOG_KB=64
DEFAULTS
export SWU_DEFAULTS="$t/defaults"

# Every name the daemon accepts for a package goes, links too.
for name in update-2.0.0.swu - .hidden.swu ..x.swu ...; do
	echo "earlier package" >"$w/$name"
done
ln -s nowhere "$w/link.swu"
echo "last run" >"$w/swu.log"
echo "artifact" >"$t/staging/a.bin"

echo "not for the daemon" | $shell "$t/S90swu" start >/dev/null
for _ in $(seq 100); do [ -f "$t/found" ] && break; sleep 0.1; done
[ -f "$t/found" ] || fail "the daemon did not start"
for _ in $(seq 100); do grep -q "last words" "$w/swu.log" && break; sleep 0.1; done
pid=$(cat "$t/swu.pid")
$shell "$t/S90swu" stop >/dev/null

expected="keep.d
swu.log
swu.log.0
/dev/null
pid $pid
args -R *
last run"
[ "$(cat "$t/found")" = "$expected" ] || fail "the daemon found: $(cat "$t/found")"
[ ! -e "$t/staging" ] || fail "the staging directory stayed"
grep -q "last words" "$w/swu.log" || fail "the log lost the daemon's last line"
for log in swu.log swu.log.0; do
	size=$(wc -c <"$w/$log")
	[ "$size" -le $((128 * 1024)) ] || fail "$log holds $size bytes"
done
! grep -q "packet 0 " "$w/swu.log.0" "$w/swu.log" || fail "the log was not rotated"
echo "ok"
