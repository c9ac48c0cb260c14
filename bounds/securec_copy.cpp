// Copy and fill routines. Checks run in one order for all of them: destMax
// against its range (34, nothing touched), a null destination (22), a null
// source (150), the size (162), overlap (182); each error with bit 128 has
// reset the destination first.
#include "securec.h"

#include <cstdint>
#include <cstring>

namespace {

bool DestMaxInRange(size_t destMax)
{
    return destMax != 0 && destMax <= SECUREC_MEM_MAX_LEN;
}

// Whether [a, a + aLen) and [b, b + bLen) share a byte.
bool Overlaps(const void *a, size_t aLen, const void *b, size_t bLen)
{
    auto lo1 = reinterpret_cast<uintptr_t>(a);
    auto lo2 = reinterpret_cast<uintptr_t>(b);
    return aLen != 0 && bLen != 0 && lo1 < lo2 + bLen && lo2 < lo1 + aLen;
}

errno_t ResetString(char *dest, errno_t error)
{
    dest[0] = '\0';
    return error;
}

}  // namespace

errno_t memcpy_s(void *dest, size_t destMax, const void *src, size_t count)
{
    if (!DestMaxInRange(destMax)) {
        return SECUREC_ERANGE;
    }
    if (dest == nullptr) {
        return SECUREC_EINVAL;
    }
    if (src == nullptr) {
        std::memset(dest, 0, destMax);
        return SECUREC_EINVAL_AND_RESET;
    }
    if (count > destMax) {
        std::memset(dest, 0, destMax);
        return SECUREC_ERANGE_AND_RESET;
    }
    if (dest == src || count == 0) {
        return EOK;
    }
    if (Overlaps(dest, count, src, count)) {
        std::memset(dest, 0, destMax);
        return SECUREC_EOVERLAP_AND_RESET;
    }
    std::memcpy(dest, src, count);
    return EOK;
}

namespace {

// The checks every string routine makes first, in this order: destMax,
// dest, then src (a null one empties dest). EOK when all pass.
errno_t CheckStringCall(char *dest, size_t destMax, const char *src)
{
    if (!DestMaxInRange(destMax)) {
        return SECUREC_ERANGE;
    }
    if (dest == nullptr) {
        return SECUREC_EINVAL;
    }
    if (src == nullptr) {
        return ResetString(dest, SECUREC_EINVAL_AND_RESET);
    }
    return EOK;
}

}  // namespace

errno_t memset_s(void *dest, size_t destMax, int c, size_t count)
{
    if (!DestMaxInRange(destMax)) {
        return SECUREC_ERANGE;
    }
    if (dest == nullptr) {
        return SECUREC_EINVAL;
    }
    if (count > destMax) {
        std::memset(dest, c, destMax);
        return SECUREC_ERANGE_AND_RESET;
    }
    std::memset(dest, c, count);
    return EOK;
}

errno_t strcpy_s(char *dest, size_t destMax, const char *src)
{
    errno_t err = CheckStringCall(dest, destMax, src);
    if (err != EOK) {
        return err;
    }
    size_t srcLen = strnlen(src, destMax);
    if (srcLen >= destMax) {
        return ResetString(dest, SECUREC_ERANGE_AND_RESET);
    }
    if (dest == src) {
        return EOK;
    }
    if (Overlaps(dest, srcLen + 1, src, srcLen + 1)) {
        return ResetString(dest, SECUREC_EOVERLAP_AND_RESET);
    }
    std::memcpy(dest, src, srcLen + 1);
    return EOK;
}

errno_t strncpy_s(char *dest, size_t destMax, const char *src, size_t count)
{
    errno_t err = CheckStringCall(dest, destMax, src);
    if (err != EOK) {
        return err;
    }
    if (count > SECUREC_STRING_MAX_LEN) {
        return ResetString(dest, SECUREC_ERANGE_AND_RESET);
    }
    if (count == 0) {
        return ResetString(dest, EOK);
    }
    // With count below destMax at most count characters are taken and always
    // fit; otherwise the source itself must be shorter than destMax.
    size_t copyLen = strnlen(src, count < destMax ? count : destMax);
    if (copyLen >= destMax) {
        return ResetString(dest, SECUREC_ERANGE_AND_RESET);
    }
    if (dest == src) {
        dest[copyLen] = '\0';
        return EOK;
    }
    if (Overlaps(dest, copyLen + 1, src, copyLen)) {
        return ResetString(dest, SECUREC_EOVERLAP_AND_RESET);
    }
    std::memcpy(dest, src, copyLen);
    dest[copyLen] = '\0';
    return EOK;
}

errno_t strcat_s(char *dest, size_t destMax, const char *src)
{
    errno_t err = CheckStringCall(dest, destMax, src);
    if (err != EOK) {
        return err;
    }
    size_t destLen = strnlen(dest, destMax);
    if (destLen == destMax) {
        // No terminator within destMax: there is no text to append to.
        return ResetString(dest, SECUREC_EINVAL_AND_RESET);
    }
    size_t room = destMax - destLen;
    size_t srcLen = strnlen(src, room);
    if (srcLen >= room) {
        return ResetString(dest, SECUREC_ERANGE_AND_RESET);
    }
    if (Overlaps(dest, destLen + srcLen + 1, src, srcLen + 1)) {
        return ResetString(dest, SECUREC_EOVERLAP_AND_RESET);
    }
    std::memcpy(dest + destLen, src, srcLen + 1);
    return EOK;
}
