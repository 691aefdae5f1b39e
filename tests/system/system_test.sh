#!/usr/bin/env bash
# The terminal build on the emulated terminal, updated end to end by the host
# tools over a virtual link, one boot per case with its own boot registers:
#   full_update         reason 1: update, real reset, confirmation; card and
#                       microcontroller checked from the host afterwards
#   recovered_attempt   reason 3: a card partition too small for the
#                       artifacts; repartitioned, reformatted, second attempt
#   large_packages      reason 6: a package too large for the SD card is
#                       refused with status 3, then 64 MiB are installed
# Prints one PASS/FAIL line per check, the guest's figures, and a last line
# "system: N passed, M failed".
#
#   tests/system/system_test.sh ARMHF_BUILD_DIR DEV_BUILD_DIR
set -uo pipefail
repo=$(cd "$(dirname "$0")/../.." && pwd)

if [ "${1:-}" != "--in-namespace" ]; then
  armhf=$(realpath "${1:?usage: system_test.sh ARMHF_BUILD_DIR DEV_BUILD_DIR}")
  dev=$(realpath "${2:?usage: system_test.sh ARMHF_BUILD_DIR DEV_BUILD_DIR}")
  . "$repo/vm/lib.sh"
  vm_require "$dev/bin" || { echo "system: 0 passed, 1 failed"; exit 1; }
  image=$(mktemp -d /tmp/swu-system.XXXXXX)
  # SWU_SYSTEM_KEEP=1 keeps the images, logs and console for a look.
  trap '[ -n "${SWU_SYSTEM_KEEP:-}" ] && echo "kept $image" || rm -rf "$image"' EXIT
  "$repo/vm/build" "$armhf" "$image" >"$image/build.log" 2>&1 || {
    grep 'vm/build:' "$image/build.log" | tail -n 1
    echo "system: 0 passed, 1 failed"
    exit 1
  }
  unshare -n "$0" --in-namespace "$image" "$dev/bin"
  exit $?
fi

# The client's remembered sessions stay with this run.
export VM_IMAGE=$2 VM_BIN=$3 VM_DIR=$2/run XDG_STATE_HOME=$2/run/client-state
. "$repo/vm/lib.sh"
mkdir -p "$VM_DIR"
trap vm_stop EXIT
vm_net || exit 1

passed=0
failed=0
# check DESCRIPTION COMMAND...
check() {
  local what=$1
  shift
  if "$@"; then passed=$((passed + 1)) r=PASS; else failed=$((failed + 1)) r=FAIL; fi
  echo "$r $case: $what"
}
# field FILE JQ_EXPRESSION EXPECTED
field() { [ "$(jq -r "$2" "$1" 2>/dev/null)" = "$3" ] || { echo "  not '$3' in $1:" && cat "$1" && false; }; }
client() { "$VM_BIN/swu-client" "$@"; }
# on_card IMAGE NAME FILE: the file on partition 1 equals FILE.
on_card() { vm_card_get "$1" "$2" "$VM_DIR/from-card" && cmp -s "$VM_DIR/from-card" "$3"; }
# reason BITS: the connection response carries the boot registers' reason.
reason() { client status "$terminal" --json >"$VM_DIR/s.json"; check "reason bits $1" field "$VM_DIR/s.json" .update_reason_bits "$1"; }
finish_case() { vm_stop && cp "$VM_DIR/console.log" "$VM_DIR/console-$case.log"; }

art=$VM_DIR/art
mkdir -p "$art/old" "$art/new" "$art/big"
printf '[pkg_data]\nversion=1.2.3\n' >"$art/old/pkg_ver.txt"
head -c 6144 /dev/urandom >"$art/old/st.bin"
printf '[pkg_data]\nversion=2.0.0\n' >"$art/new/pkg_ver.txt"
head -c 8M /dev/urandom >"$art/new/app.img"
printf 'greeting=hello from 2.0.0\n' >"$art/new/app.conf"
head -c 8192 /dev/urandom >"$art/new/st.bin"
printf '[pkg_data]\nversion=3.0.0\n' >"$art/big/pkg_ver.txt"
head -c 64M /dev/urandom >"$art/big/app.img"
head -c 4096 /dev/urandom >"$art/big/st.bin"
"$VM_BIN/swu-pack" -o "$VM_DIR/update-2.0.0.swu" "$art"/new/* >/dev/null || exit 1
"$VM_BIN/swu-pack" -o "$VM_DIR/update-3.0.0.swu" "$art"/big/* >/dev/null || exit 1
vm_flash "$VM_DIR/flash.img" VM-TERMINAL-0001
terminal=$VM_GUEST_IP

# ------------------------------------------------------------- full_update
case=full_update
vm_card "$VM_DIR/card.img" 256 0 "$art"/old/*
vm_card "$VM_DIR/sd.img" 128 0
if check "the guest boots" vm_start 0xFAACABBA 0 --image "$art/old/st.bin" && [ $r = PASS ]; then
  check "mtd1 erases and takes a write" vm_true 'flash_erase -q /dev/mtd1 0 0 && printf swu >/dev/mtd1'
  echo "figure: boot to the daemon's start: $(sed -n 's/.*swu-vm: ready after //p' "$VM_DIR/console.log")"
  client discover --timeout 4 --json >"$VM_DIR/discover.json"
  check "the advertisement carries the identity and 1.2.3" \
    field "$VM_DIR/discover.json" '.[0] | "\(.identity) \(.installed_version) \(.factory_version)"' \
    "VM-TERMINAL-0001 1.2.3 0.0.0"
  client update "$terminal" "$VM_DIR/update-2.0.0.swu" --confirm-timeout 180 --json \
    >"$VM_DIR/full.json"
  check "updated and confirmed at 2.0.0 after the reboot" \
    field "$VM_DIR/full.json" '"\(.result) \(.reboot_confirmed) \(.version_after)"' "updated true 2.0.0"
  check "the reboot reset the guest" [ "$(vm_boots)" -eq 2 ]
  check "the reboot mode was set to production" \
    grep -q 'ovmisc: reboot mode 0x00000000' "$VM_DIR/console.log"
  reason 1
fi
finish_case
for f in app.img app.conf pkg_ver.txt st.bin; do
  check "the card holds the new $f" on_card "$VM_DIR/card.img" "$f" "$art/new/$f"
done
check "the write reached the flash" cmp -s <(printf 'swu\377') <(tail -c +262145 "$VM_DIR/flash.img" | head -c 4)
check "the microcontroller's flash holds the new st.bin" \
  cmp -s <(tail -c 8192 "$VM_DIR/stm32.state") "$art/new/st.bin"
vm_card_get "$VM_DIR/sd.img" swu/swu.log.0 "$VM_DIR/swu.log" && vm_mcu_figure "$VM_DIR/swu.log"

# ------------------------------------------------------- recovered_attempt
case=recovered_attempt
vm_card "$VM_DIR/card.img" 256 4 "$art"/old/*
vm_card "$VM_DIR/sd.img" 128 0
if check "the guest boots" vm_start 0xFAACABBA 0xDEADBEEF && [ $r = PASS ]; then
  client update "$terminal" "$VM_DIR/update-2.0.0.swu" --confirm-timeout 180 --json \
    >"$VM_DIR/recovered.json"
  check "updated after the card's recovery" field "$VM_DIR/recovered.json" .result updated
  reason 3
fi
finish_case
part=$(vm_part1 "$VM_DIR/card.img")
check "BusyBox fdisk gave partition 1 the whole card ($part)" [ "${part#* }" -gt 400000 ]
check "the reformatted card holds the new app.img" \
  on_card "$VM_DIR/card.img" app.img "$art/new/app.img"
vm_card_get "$VM_DIR/sd.img" swu/swu.log.0 "$VM_DIR/swu.log"
check "the first attempt failed at the card" grep -a -q 'cpy_files_2_emmc faild' "$VM_DIR/swu.log"

# ---------------------------------------------------------- large_packages
case=large_packages
vm_card "$VM_DIR/card.img" 256 0 "$art"/old/*
# The SD card is nearly full, with a copy of the package for the figures.
head -c -12 "$VM_DIR/update-3.0.0.swu" >"$VM_DIR/bench.tgz"
truncate -s 420M "$VM_DIR/filler"
vm_card "$VM_DIR/sd.img" 512 0 "$VM_DIR/filler" "$VM_DIR/bench.tgz"
if check "the guest boots" vm_start 0 0xD00EFAAC && [ $r = PASS ]; then
  client discover --timeout 4 --json >"$VM_DIR/discover.json"
  check "the advertisement carries the factory version 0.1.3" \
    field "$VM_DIR/discover.json" '.[0].factory_version' 0.1.3
  client update "$terminal" "$VM_DIR/update-3.0.0.swu" --json >"$VM_DIR/too-large.json"
  check "a package too large for the SD card is refused with status 3" \
    field "$VM_DIR/too-large.json" '"\(.result) \(.status.status_code)"' "failed 3"
  check "the daemon lives on" vm_true 'pidof swu'
  vm_run 'rm /media/SDcard/filler'
  vm_figures /media/SDcard/bench.tgz
  client update "$terminal" "$VM_DIR/update-3.0.0.swu" --confirm-timeout 180 --json \
    >"$VM_DIR/big.json"
  check "64 MiB installed and confirmed at 3.0.0" \
    field "$VM_DIR/big.json" '"\(.result) \(.version_after)"' "updated 3.0.0"
  reason 6
  vm_stream_figure "$VM_DIR/big.json"
fi
finish_case
check "the card holds the 64 MiB artifact" on_card "$VM_DIR/card.img" app.img "$art/big/app.img"
check "the microcontroller was left alone" \
  cmp -s <(tail -c 8192 "$VM_DIR/stm32.state") "$art/new/st.bin"

echo "system: $passed passed, $failed failed"
[ "$failed" -eq 0 ]
