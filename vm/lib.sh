# The emulated terminal's launcher, sourced by the system test and by
# scripts/demo --vm. Everything runs inside a private network namespace
# (vm_net), with the guest's files in $VM_DIR.
#
#   VM_DIR    working directory (console log, card images, the line's link)
#   VM_IMAGE  what vm/build produced (zImage, terminal.dtb, initramfs.cpio.gz)
#   VM_BIN    the dev build's bin directory (stm32-sim, swu-client)

VM_HOST_IP=169.254.42.1
VM_GUEST_IP=169.254.42.2
# Software emulation on a shared machine: a boot takes seconds, this is the
# bound after which the guest counts as not booting.
VM_BOOT_SECONDS=${VM_BOOT_SECONDS:-120}
vm_pids=()

vm_fail() {
  echo "emulated terminal: $*" >&2
  return 1
}

# vm_require [BIN]: each prerequisite named in one line when missing; BIN is
# where the host tools should be.
vm_require() {
  [ "$(id -u)" -eq 0 ] || vm_fail "needs root (a network namespace and a tap device)" || return 1
  command -v qemu-system-arm >/dev/null || vm_fail "qemu-system-arm is missing" || return 1
  [ -c /dev/net/tun ] || vm_fail "/dev/net/tun is missing (no tap device for the guest)" || return 1
  command -v arm-linux-gnueabihf-gcc >/dev/null ||
    vm_fail "the armhf cross compiler is missing" || return 1
  local tool
  for tool in mcopy mkfs.fat sfdisk cpio jq; do
    command -v $tool >/dev/null || vm_fail "$tool is missing" || return 1
  done
  for tool in stm32-sim swu-client swu-pack; do
    [ -z "${1:-}" ] || [ -x "$1/$tool" ] || vm_fail "$1/$tool is missing" || return 1
  done
}

# The guest's link: a tap with link-local addresses and multicast routed to it.
vm_net() {
  ip link set lo up
  ip tuntap add dev tap0 mode tap || vm_fail "cannot create a tap device" || return 1
  ip addr add $VM_HOST_IP/16 dev tap0
  ip link set tap0 up
  ip route add 224.0.0.0/4 dev tap0
}

# vm_card IMAGE SIZE_MIB PART_MIB [FILE...]: a card with one FAT partition of
# PART_MIB (0: the whole card) from 1 MiB on, holding the files.
vm_card() {
  local img=$1 size=$2 part=$3
  shift 3
  rm -f "$img"
  truncate -s "${size}M" "$img"
  local sectors=$(((part > 0 ? part : size - 1) * 2048))
  echo "2048,$sectors,c" | sfdisk -q "$img" >/dev/null
  mkfs.fat -S 512 --offset 2048 "$img" $((sectors / 2)) >/dev/null 2>&1
  [ $# -eq 0 ] || mcopy -i "$img@@1M" "$@" ::
}

# vm_part1 IMAGE: start and size of partition 1, in sectors.
vm_part1() {
  sfdisk -d "$1" 2>/dev/null | sed -n 's/.*1 : start= *\([0-9]*\), size= *\([0-9]*\).*/\1 \2/p'
}

# vm_card_get IMAGE PATH OUT: a file from the card's partition 1, wherever
# that starts (BusyBox fdisk does not start it at 1 MiB).
vm_card_get() {
  local at
  at=$(vm_part1 "$1") && [ -n "$at" ] || return 1
  mcopy -n -i "$1@@$((${at% *} * 512))" "::$2" "$3"
}

# vm_flash IMAGE IDENTITY: the QSPI flash (16 MiB, erased) with the identity
# block in its first partition.
vm_flash() {
  head -c 16M /dev/zero | tr '\0' '\377' >"$1"
  printf '<orVanId>%s</orVanId>' "$2" | dd of="$1" conv=notrunc status=none
}

# vm_start INITIATE_UPDATE ERR_BOOT [stm32-sim options...]: the microcontroller
# simulator on a host pty and the guest, with the cards $VM_DIR/card.img and
# $VM_DIR/sd.img and the flash $VM_DIR/flash.img; returns once the terminal's
# start scripts have run.
vm_start() {
  local regs="ovmisc.initiate_update=$1 ovmisc.err_boot=$2 swuvm.ip=$VM_GUEST_IP"
  shift 2
  "$VM_BIN/stm32-sim" --link "$VM_DIR/ttyUL1" --state "$VM_DIR/stm32.state" "$@" \
    >>"$VM_DIR/stm32-sim.log" 2>&1 &
  vm_pids+=($!)
  vm_wait "$VM_DIR/stm32-sim.log" "stm32-sim: ready" 10 || return 1
  local machine=(-M xilinx-zynq-a9 -append "console=ttyPS0,115200 nosmp $regs"
    -dtb "$VM_IMAGE/terminal.dtb"
    -chardev serial,id=mcu,path="$VM_DIR/ttyUL1" -serial chardev:mcu
    -chardev pipe,id=con,path="$VM_DIR/con" -serial chardev:con
    -drive if=sd,index=0,format=raw,file="$VM_DIR/card.img"
    -drive if=sd,index=1,format=raw,file="$VM_DIR/sd.img"
    -drive if=mtd,index=8,format=raw,file="$VM_DIR/flash.img"
    -nic tap,ifname=tap0,script=no,downscript=no,model=cadence_gem)
  # VM_MACHINE=virt: QEMU's virt machine with two Cortex-A15 cores, for what
  # the one-core Zynq machine cannot show; cards on virtio, no flash, no line.
  [ "${VM_MACHINE:-}" = virt ] && machine=(-M virt,highmem=off -cpu cortex-a15 -smp 2
    -append "console=ttyAMA0 $regs" -chardev pipe,id=con,path="$VM_DIR/con" -serial chardev:con
    -drive if=none,id=sd,format=raw,file="$VM_DIR/sd.img" -device virtio-blk-device,drive=sd
    -drive if=none,id=card,format=raw,file="$VM_DIR/card.img" -device virtio-blk-device,drive=card
    -netdev tap,id=net,ifname=tap0,script=no,downscript=no -device virtio-net-device,netdev=net)
  rm -f "$VM_DIR/con.in" "$VM_DIR/con.out"
  mkfifo "$VM_DIR/con.in" "$VM_DIR/con.out"
  : >"$VM_DIR/console.log"
  cat "$VM_DIR/con.out" >>"$VM_DIR/console.log" &
  vm_pids+=($!)
  qemu-system-arm -m 512M -display none -monitor none -nodefaults \
    -kernel "$VM_IMAGE/zImage" -initrd "$VM_IMAGE/initramfs.cpio.gz" "${machine[@]}" \
    >"$VM_DIR/qemu.log" 2>&1 &
  vm_qemu=$!
  vm_pids+=($vm_qemu)
  vm_wait "$VM_DIR/console.log" "swu-vm: ready" "$VM_BOOT_SECONDS" || {
    cat "$VM_DIR/qemu.log" >&2
    return 1
  }
}

# vm_wait FILE TEXT SECONDS: fails with the file's end shown when TEXT does
# not appear in time.
vm_wait() {
  local i
  for ((i = 0; i < $3 * 10; i++)); do
    grep -a -q -- "$2" "$1" 2>/dev/null && return 0
    [ -n "${vm_qemu:-}" ] && ! kill -0 "$vm_qemu" 2>/dev/null && break
    sleep 0.1
  done
  echo "emulated terminal: no '$2' in $1 within $3 s; its end:" >&2
  tail -n 40 "$1" >&2
  return 1
}

# vm_run COMMAND [SECONDS]: runs a shell command on the guest's console and
# prints its output.
vm_run() {
  local mark="swu-vm-done-$RANDOM$RANDOM" from
  from=$(wc -l <"$VM_DIR/console.log")
  printf '%s; echo %s\n' "$1" "$mark" >"$VM_DIR/con.in"
  vm_wait "$VM_DIR/console.log" "^$mark" "${2:-60}" || return 1
  tail -n +$((from + 1)) "$VM_DIR/console.log" | tr -d '\r' |
    awk -v m="$mark" 'index($0, m) == 1 { exit } { print }'
}

# vm_true COMMAND: the command's own result on the guest.
# (Kernel messages may come out on the console in between.)
vm_true() { vm_run "{ $1; } >/dev/null 2>&1; echo swu-vm-status=\$?" | grep -q '^swu-vm-status=0'; }

vm_boots() { grep -c 'swu-vm: ready' "$VM_DIR/console.log"; }

# Figures, emulated ones: to compare, never targets.
# vm_time WHAT COMMAND: a command in the guest, timed there by BusyBox.
vm_time() {
  echo "figure: $1: $(vm_run "time sh -c '$2 >/dev/null 2>&1'" 600 | sed -n 's/^real[[:space:]]*//p')"
}

# vm_figures TGZ: the daemon's own steps in the guest: the stream request's
# zero-fill on the SD card, unpacking TGZ (a package without its footer, on
# the SD card), copying its app.img to the card and its MD5 there.
vm_figures() {
  local m
  for m in 8 64; do
    vm_time "stream request's zero-fill, $m MiB" \
      "dd if=/dev/zero of=/media/SDcard/swu/probe bs=1 count=1 seek=$((m * 1048576 - 1))"
    vm_run 'rm /media/SDcard/swu/probe'
  done
  vm_run 'mkdir /tmp/b /tmp/card; mount /dev/mmcblk0p1 /tmp/card'
  vm_time "unpack $(basename "$1")" "tar -o -xzf $1 -C /tmp/b"
  vm_time "copy its app.img to the card" 'cp /tmp/b/app.img /tmp/card/ && sync'
  vm_run 'umount /tmp/card; mount /dev/mmcblk0p1 /tmp/card'
  vm_time "md5 of that copy" 'md5sum /tmp/card/app.img'
  vm_run "rm -r /tmp/b /tmp/card/app.img $1; umount /tmp/card"
}

# vm_stream_figure JSON: from swu-client update --json.
vm_stream_figure() {
  jq -r '"figure: stream \(.bytes / 1048576 | floor) MiB in \(.stream_seconds) s, \(.stream_bytes_per_second / 1048576 * 100 | floor / 100) MiB/s, \(.retransmitted) of \(.packets) packets resent; check \(.check_seconds) s, install \(.install_seconds) s"' "$1"
}

# vm_mcu_figure LOG: microcontroller programming, from the daemon's log.
vm_mcu_figure() {
  grep -a -E 'Starting STM software|SUCCESS to update STM' "$1" |
    sed -n 's/.*Time: \([0-9]*\)(ms).*/\1/p' | paste -sd' ' |
    awk 'NF == 2 { printf "figure: microcontroller programming: %.2f s\n", ($2 - $1) / 1e3 }'
}

# vm_stop: stops the guest, with its file systems synced first as a power
# off would find them, and the simulator.
vm_stop() {
  local pid
  [ -n "${vm_qemu:-}" ] && kill -0 "$vm_qemu" 2>/dev/null && vm_run sync 10 >/dev/null 2>&1
  for pid in "${vm_pids[@]}"; do
    kill "$pid" 2>/dev/null || true
  done
  for pid in "${vm_pids[@]}"; do
    wait "$pid" 2>/dev/null || true
  done
  vm_pids=()
  vm_qemu=
}
