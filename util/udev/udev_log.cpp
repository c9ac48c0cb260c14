// Trace-log set-up. Its messages go to standard output: the trace file is
// what it sets up.
#include "udev_log.h"

#include <cstdio>
#include <cstring>

#include "securec.h"
#include "util_ret.h"

int UDEV_InitLog()
{
    char path[MPI_LOG_PATH_LEN] = {};
    const char *logPath = MPI_GetFilePath(MPI_PATH_LOG, "qm_udev_log.txt");
    if (logPath == nullptr) {
        std::printf("Get UDEV trace log file failed.\n");
        std::fflush(stdout);
        return UDEV_RET_FAIL;
    }
    errno_t err = strcpy_s(path, sizeof(path), logPath);
    if (err != EOK) {
        std::printf("init log path name fail with err{%s}!\n", strerror(err));
        return UDEV_RET_FAIL;
    }
    return MPI_SetLogFile(path) == UDEV_RET_OK ? UDEV_RET_OK : UDEV_RET_FAIL;
}
