// SPDX-License-Identifier: Apache-2.0
#pragma once

/* The form of file work that the build chose (VNLOG_FILE_WORK); both are built and tested. */
#ifdef VNLOG_SHELL_FILE_WORK
#include "storage/ShellFileWork.h"
namespace vnlog {
using ChosenFileWork = ShellFileWork;
}
#else
#include "storage/ProcessFileWork.h"
namespace vnlog {
using ChosenFileWork = ProcessFileWork;
}
#endif
