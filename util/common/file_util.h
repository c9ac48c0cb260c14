// Small file and text helpers: whole-file read/write of attribute files,
// a token cutter, character-class tests and a byte-to-hex formatter.
#pragma once

#include <cstdint>

int32_t INTF_UTIL_Read(const char *dir, const char *fileName, char *buffer, int32_t length);
int32_t INTF_UTIL_Write(const char *dir, const char *fileName, const char *data, uint32_t length);
char *UTIL_StrSep(char **cursor, const char *delimiter);
bool UTIL_IsDigitString(const char *text);
bool UTIL_IsHexString(const char *text);
int UTIL_BytesToHexString(const uint8_t *bytes, uint32_t count, char *out, uint32_t outSize);
