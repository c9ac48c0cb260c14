// Shared by the fuzz harnesses: a check that libFuzzer reports as a crash,
// and a path for the readers that open a file.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>

#include <sys/mman.h>
#include <unistd.h>

// abort(): libFuzzer keeps the input as a crash artifact, with this line
// (which scripts/fuzz.sh looks for) in the log.
#define FUZZ_CHECK(cond)                                                                                        \
    ((cond) ? (void)0                                                                                           \
            : (std::fprintf(stderr, "fuzz check failed at %s:%d: %s\n", __FILE__, __LINE__, #cond), std::abort()))

// The readers fopen a path: a memfd seen through /proc/self/fd touches no
// real directory. One file per process, rewritten for each input.
inline const char *FuzzFile(const void *data, size_t size)
{
    static const int fd = memfd_create("qmudev-fuzz", 0);
    static const std::string path = "/proc/self/fd/" + std::to_string(fd);
    FUZZ_CHECK(fd >= 0 && ftruncate(fd, 0) == 0 && pwrite(fd, data, size, 0) == static_cast<ssize_t>(size));
    return path.c_str();
}
