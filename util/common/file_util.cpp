// Whole-file read and write of small attribute files, a token cutter, two
// character-class tests and a byte-to-hex formatter. No state.
#include "file_util.h"

#include <cstring>

#include <fcntl.h>
#include <unistd.h>

#include "mpi_usr_if.h"
#include "raii.h"
#include "securec.h"
#include "util_ret.h"

namespace {

constexpr size_t UTIL_FULL_NAME_BUF_LEN = 256;
// One byte of the buffer stays unused: the join is bounded at 255 on
// purpose, so a joined path of 255 characters is refused.
constexpr size_t UTIL_FULL_NAME_MAX = UTIL_FULL_NAME_BUF_LEN - 1;
constexpr uint32_t UTIL_IO_MAX_LEN = 0x7FFFFFFF;

bool JoinPath(char (&fullName)[UTIL_FULL_NAME_BUF_LEN], const char *dir, const char *fileName)
{
    return sprintf_s(fullName, UTIL_FULL_NAME_MAX, "%s/%s", dir, fileName) != -1;
}

bool IsHexChar(char c)
{
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

}  // namespace

int32_t INTF_UTIL_Read(const char *dir, const char *fileName, char *buffer, int32_t length)
{
    if (length < 0 || dir == nullptr || fileName == nullptr || buffer == nullptr) {
        return -1;
    }
    char fullName[UTIL_FULL_NAME_BUF_LEN] = {};
    if (!JoinPath(fullName, dir, fileName)) {
        MPI_Log(MPI_LOG_ERROR, "structure full name fail with dir{%s} file{%s}.\n", dir, fileName);
        return -1;
    }
    UniqueFd fd(::open(fullName, O_RDONLY));
    if (!fd) {
        MPI_Log(MPI_LOG_ERROR, "open file{%s} failed!\n", fullName);
        return -1;
    }
    ssize_t count = ::read(fd.get(), buffer, static_cast<size_t>(length));
    if (count < 0) {
        MPI_Log(MPI_LOG_ERROR, "read fail in file{%s} with ret{%d}.\n", fullName, static_cast<int>(count));
        return static_cast<int32_t>(count);
    }
    fd.reset();
    // The kernel ends attribute values with a newline; callers want the value.
    if (count >= 1 && count <= length && buffer[count - 1] == '\n') {
        buffer[count - 1] = '\0';
    }
    return static_cast<int32_t>(count);
}

int32_t INTF_UTIL_Write(const char *dir, const char *fileName, const char *data, uint32_t length)
{
    if (dir == nullptr || fileName == nullptr || data == nullptr || length > UTIL_IO_MAX_LEN) {
        return -1;
    }
    char fullName[UTIL_FULL_NAME_BUF_LEN] = {};
    if (!JoinPath(fullName, dir, fileName)) {
        MPI_Log(MPI_LOG_ERROR, "structure full name fail with path{%s} file{%s}.\n", dir, fileName);
        return -1;
    }
    // No O_CREAT: the target is an existing attribute file of the device tree.
    UniqueFd fd(::open(fullName, O_WRONLY));
    if (!fd) {
        MPI_Log(MPI_LOG_ERROR, "open file{%s} failed!\n", fullName);
        return -1;
    }
    ssize_t count = ::write(fd.get(), data, length);
    if (count < 0) {
        MPI_Log(MPI_LOG_ERROR, "write fail in file{%s} with ret{%d}.\n", fullName, static_cast<int>(count));
    }
    return static_cast<int32_t>(count);
}

char *UTIL_StrSep(char **cursor, const char *delimiter)
{
    if (cursor == nullptr || delimiter == nullptr) {
        return nullptr;
    }
    char *token = *cursor;
    size_t delimLen = std::strlen(delimiter);
    size_t textLen = token != nullptr ? std::strlen(token) : 0;
    if (token != nullptr && delimLen != 0 && delimLen <= textLen) {
        for (size_t i = 0; i + delimLen <= textLen; ++i) {
            if (std::memcmp(token + i, delimiter, delimLen) == 0) {
                (void)memset_s(token + i, textLen - i + 1, 0, delimLen);
                *cursor = token + i + delimLen;
                return token;
            }
        }
    }
    *cursor = nullptr;
    return token;
}

bool UTIL_IsDigitString(const char *text)
{
    if (text == nullptr) {
        return false;
    }
    for (; *text != '\0'; ++text) {
        if (*text < '0' || *text > '9') {
            return false;
        }
    }
    return true;
}

bool UTIL_IsHexString(const char *text)
{
    if (text == nullptr) {
        return false;
    }
    for (; *text != '\0'; ++text) {
        if (!IsHexChar(*text)) {
            return false;
        }
    }
    return true;
}

int UTIL_BytesToHexString(const uint8_t *bytes, uint32_t count, char *out, uint32_t outSize)
{
    if (bytes == nullptr || out == nullptr || outSize <= 2ULL * count) {
        return UDEV_RET_INVALID_PARAM;
    }
    for (uint32_t i = 0; i < count; ++i) {
        size_t pos = 2ULL * i;
        (void)snprintf_s(out + pos, outSize - pos, 3, "%02x", bytes[i]);
    }
    out[2ULL * count] = '\0';
    return UDEV_RET_OK;
}
