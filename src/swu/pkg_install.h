// Package installation: the integrity check and unpacking of a received update
// package, and the installation thread that copies its artifacts onto the eMMC
// card, checks every copy by its MD5 digest and has the supervisor
// microcontroller reprogrammed from the card's "st.bin".
//
// The thread publishes its progress as the install status and waits twice on
// g_install_sync_sem: once for the go-ahead after a successful check, once
// more after its final verdict, so that the state machine has seen the
// verdict before the thread ends. The verdict stays until the next run
// starts, which sets the status back to INSTALL_STT_IN_PROGRESS.
#pragma once

#include "proto/codes.h"
#include "proto/package.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <semaphore.h>
#include <string>
#include <sys/types.h>

enum install_status {
    INSTALL_STT_IN_PROGRESS = 0,
    INSTALL_STT_CRC_OK = 1,
    INSTALL_STT_CRC_ERROR = 2,
    INSTALL_STT_ARTIFACT_OK = 3,
    INSTALL_STT_ARTIFACT_ERROR = 4,
    INSTALL_STT_INSTALLING = 5,
    INSTALL_STT_INSTALL_COMPLEATE = 6,
    INSTALL_STT_INSTALL_FAILURE = 7,
};

// Paces the installation thread. Post it only through post_install_sem(),
// which makes it ready on first use.
extern sem_t g_install_sync_sem;

// The installation thread's argument.
struct validation_thrd_arg {
    char *path;     // package file, relative to the working directory
    long swu_reson; // update-mode reason bits; SWU_REASON_KEEP_MCU leaves the microcontroller alone
    std::atomic<int> ret; // result of the thread's latest step, 0 for success
};
extern struct validation_thrd_arg g_instatll_thrd_data;

inline constexpr size_t ARTIFACT_NAME_SIZE = ARTIFACT_NAME_MAX_LEN + 1; // and terminator
inline constexpr size_t PKG_PATH_SIZE = 256;
inline constexpr size_t MD5_LEN = 32;

struct artifact_desc {
    char fname[ARTIFACT_NAME_SIZE]; // name without directory, zero-terminated
    uint32_t fname_len;             // without the terminator
};
typedef struct artifact_desc artifact_desc_t;

// --- Integrity check and unpacking ------------------------------------------
// Each returns 0 for success and -1 for failure, after reporting it.

// Reads the footer of the open file `fd` of `fsize` bytes into *pkg_data, cuts
// the footer off the file and leaves the offset at 0.
int extract_footer(pkg_metadata_t *pkg_data, int fd, off_t fsize);

// Takes the footer of the package at `path` and checks the CRC of the rest;
// publishes INSTALL_STT_CRC_OK or INSTALL_STT_CRC_ERROR. A package that can't
// be opened or examined publishes nothing.
int check_pkg_crc(const char *path, pkg_metadata_t *pkg_data);

// Unpacks the package at `path` (already without its footer) into "/tmp/pkg/".
int do_extract_pkg(const char *path);

// check_pkg_crc, then, when it passed, do_extract_pkg; publishes
// INSTALL_STT_ARTIFACT_OK or INSTALL_STT_ARTIFACT_ERROR after unpacking.
int do_pkg_validation(const char *path, pkg_metadata_t *pkg_data);

// --- Installation ------------------------------------------------------------

// The installation thread: `arg` is a struct validation_thrd_arg *. Validates,
// waits for the go-ahead, installs (with one card recovery and second attempt
// when the first attempt fails), publishes the verdict and waits for its
// acknowledgement. Always returns null.
void *pkg_install_thrd_proc(void *arg);

// The install status as last published. pkg_install.cpp owns it; the
// installation thread publishes its progress, and the verification state
// clears it before it starts a thread.
int get_install_status();
void set_install_status(int status);

// One signal to the installation thread; sem_post's result.
int post_install_sem();

// Lists the regular files at the top of "/tmp/pkg/" into a new array that the
// caller frees: 0; -1 when the directory can't be read, a name doesn't fit
// `fname`, or the two listing passes disagree; -2 when out of memory.
int list_pkg_content(artifact_desc_t **art_list, uint32_t *art_count);

// One installation attempt: mount the card, copy and verify the artifacts,
// update the microcontroller when the card holds "st.bin" (unless
// SWU_REASON_KEEP_MCU), and release the card. 0 or -1.
int do_pkg_install(struct validation_thrd_arg *thrd_data, artifact_desc_t *art_list,
                   uint32_t art_count);

// With a trusted key: checks the copies of `art_list` in `dir` (the card)
// against the signed manifest the package was accepted with, and removes
// them all when one differs. 0 when they match, and always without a key.
int check_signed_copies(const char *dir, const artifact_desc_t *art_list, uint32_t art_count);

// Re-partitions and re-formats the card; everything on it is lost.
void do_emmc_recovery();

// `text` as one shell word: in single quotes, each embedded ' written as '\''.
std::string pkg_shell_quote(const char *text);
