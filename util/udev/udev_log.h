// Trace-log set-up: the trace file's path, set once at start-up. The sinks
// and the syslog-mode flag are the platform's (mpi_usr_if.h).
#pragma once

#include "mpi_usr_if.h"

int UDEV_InitLog();  // UDEV_RET_OK / UDEV_RET_FAIL; messages go to stdout
