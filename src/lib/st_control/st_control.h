// The single entry into the supervisor microcontroller subsystem: a
// command-line style call that opens the UART to the STM32 ("/dev/ttyUL1"),
// runs the actions its options ask for and closes the line again.
#pragma once

// Options "sg:d:uf:t:b:l:v":
//   -t x     required; the device is always "/dev/ttyUL1"
//   -u       program "/mnt/emmc/st.bin" into the STM32 (-f names it in errors)
//   -l r     read the LED;  -l wb<blink>c<colour>  set it
//   -b 0|1   button inactive / active
//   -v       print the application and bootloader versions
//   -g m|b   start the application / the bootloader
//   -d A|N   wait for the STM32's shutdown request and accept / refuse it
//   -s       print whether the STM32 asks for a recovery
// The actions run in this order whatever the order of the options. Events go
// to the event log on standard output with a millisecond time stamp. Each call
// scans its own vector from argv[1], whatever was scanned before.
// 0 once the UART was opened and the actions ran, whatever their outcome; -1
// for a bad option, a missing -t, or a UART or image that can't be opened.
int st_soft_control(int argc, char **argv);
