// The package file being received: the one owner of its name, descriptor,
// size and mapping. The stream handlers create, map, write and close it
// through these functions, the session time-out and an acknowledged error
// release it, and the verification reads its name.
//
// The file lives in the service's working directory under the name the
// client gave. It is created and reserved by the stream request, mapped by
// the first packet, closed by the stream end; a complete stream leaves it
// closed for the installation thread.
#pragma once

#include "proto/package.h"

#include <cstddef>
#include <cstdint>

// Package name bytes: at most PKG_NAME_MAX_LEN characters and the terminator.
inline constexpr size_t PKG_NAME_SIZE = PKG_NAME_MAX_LEN + 1;

// The package file's name (empty when none), its descriptor (0 when none is
// open) and its size. Changed only here.
extern char g_pkg_name[PKG_NAME_SIZE];
extern int g_pkg_fd;
extern uint32_t g_pkg_size;

// Takes the requested size: its low 32 bits are the package's size.
void pkg_file_set_size(uint64_t fsize);

// Creates (or opens, without truncating and without following a link) the
// file `name` of `len` characters and reserves g_pkg_size bytes by writing
// its last byte. 0; or the status code of the failure (file not created, or
// space not reserved) after its line through perror.
int pkg_file_create(const char *name, size_t len);

// Maps the open file into *pkg_file when it is not mapped yet: 0, or -1
// after "mmap_failed" (also when no file is open).
int pkg_file_map(char **pkg_file);

// Copies one packet's payload to `offset` of the mapping. 0, or -1 when the
// file behind the mapping could not take it (an I/O error of the disk).
int pkg_file_write(char *pkg_file, uint64_t offset, const void *payload, size_t len);

// Unmaps and closes the file; it stays on disk.
void pkg_file_close(char **pkg_file);

// Deletes the file named g_pkg_name: unlink's result.
int pkg_file_remove();

// Closes the file, deletes it and forgets its name: unlink's result.
int cleanup_pkg_file();

// What an unfinished stream leaves behind goes: the mapping, the open file
// (closed and deleted) and the size.
void release_pkg_file(char **pkg_file);
