// The general line reader. Its long-line rule differs from the vendor list
// reader's on purpose: here a line of 511 characters or more is skipped
// whole, there the rest of it becomes a line of its own.
#include "read_line.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "mpi_usr_if.h"
#include "raii.h"
#include "util_ret.h"

namespace {

constexpr uint32_t LINE_MAX_STORED = UTIL_LINE_BUF_LEN - 1;

struct LineReader {
    char buffer[UTIL_LINE_BUF_LEN];
    uint32_t length;
};

// UDEV_RET_OK to go on, else the reader's refusal code.
int HandleChar(LineReader *reader, int c, void *ctx, UtilReadLineCallback callback)
{
    if (reader->length >= LINE_MAX_STORED) {
        if (c == '\n') {
            reader->buffer[LINE_MAX_STORED] = '\0';
            MPI_Log(MPI_LOG_ERROR, "line over max number{%d} of char:%s\n", static_cast<int>(UTIL_LINE_BUF_LEN),
                    reader->buffer);
            reader->length = 0;
        }
        return UDEV_RET_OK;
    }
    if (c != '\n') {
        reader->buffer[reader->length++] = static_cast<char>(c);
        return UDEV_RET_OK;
    }
    if (reader->length > 0 && reader->buffer[reader->length - 1] == '\\') {
        return UDEV_RET_OK;  // the backslash stays: the next physical line continues this one
    }
    reader->buffer[reader->length] = '\0';
    if (callback(reader->buffer, reader->length, ctx) != UDEV_RET_OK) {
        return UDEV_RET_CALLBACK_FAIL;
    }
    reader->length = 0;
    return UDEV_RET_OK;
}

}  // namespace

int INTF_UTIL_ReadFileHandleByLine(const char *path, void *ctx, UtilReadLineCallback callback)
{
    MPI_AssertNotNull(path);
    MPI_AssertNotNull(callback);
    LineReader reader = {};
    FilePtr file(std::fopen(path, "rb+"));
    if (file == nullptr) {
        int err = errno;
        MPI_Log(MPI_LOG_ERROR, "can't open %s: %s\n", path, std::strerror(err));
        return UDEV_RET_FAIL;
    }
    (void)std::fseek(file.get(), 0, SEEK_SET);
    int c;
    while ((c = std::fgetc(file.get())) != EOF) {
        int ret = HandleChar(&reader, c, ctx, callback);
        if (ret != UDEV_RET_OK) {
            return ret;
        }
    }
    return UDEV_RET_OK;
}
