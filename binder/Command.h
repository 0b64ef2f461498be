// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace vnlog {

/** Command codes of ILogService::logCMD and logQuery, shared by client and service. 2, 12, 13 and 17 are not
 * assigned. */
enum Command : int {
    CMD_UART_OUTPUT = 0, ///< "y" or "n"
    CMD_NAND_FILE_OUTPUT = 1, ///< "y" or "n"
    CMD_KLOG_OUTPUT = 3, ///< "y" or "n"
    CMD_KLOG_LEVEL = 4, ///< "1" to "7"
    CMD_ALOG_OUTPUT = 5, ///< "y" or "n"
    CMD_ALOG_LEVEL = 6, ///< a letter v, d, i, w, e, f or s
    CMD_ALOG_MODULE = 7, ///< "ALL_MODULE" or "NONE_MODULE"
    CMD_ALOG_ADD_MODULE = 8, ///< module items joined by "+"
    CMD_ALOG_DEL_MODULE = 9, ///< a module name
    CMD_ALOG_FORMAT = 10, ///< a line format word
    CMD_FLUSH_SWITCH = 11, ///< "y" or "n"
    CMD_FLUSH = 14, ///< any parameter; for ILogService::logQuery "", or "--wait" and "--sync"
    CMD_STORAGE_PATH = 15, ///< a directory
    CMD_SHOW = 16, ///< no parameter
    CMD_COPY = 18, ///< an existing directory
    CMD_FLUSH_INTERVAL = 19, ///< seconds, "0" to "3600"
    CMD_FLUSH_PRIORITY = 20, ///< a letter v, d, i, w, e, f or s
    CMD_MAX_LOG_SIZE = 21, ///< MiB, "1" to "4095"
    CMD_LOG_SECTION_SIZE = 22, ///< KiB, "64" to "256"
    CMD_STATUS = 23, ///< ILogService::logQuery only: no parameter
};

} // namespace vnlog
