// A text file read line by line, each line handed to a callback.
#pragma once

#include <cstdint>

constexpr uint32_t UTIL_LINE_BUF_LEN = 512;

// (line without its newline, NUL-terminated; its length; the caller's
// context) -> UDEV_RET_OK to go on.
using UtilReadLineCallback = int (*)(char *line, uint32_t lineLen, void *ctx);

int INTF_UTIL_ReadFileHandleByLine(const char *path, void *ctx, UtilReadLineCallback callback);
