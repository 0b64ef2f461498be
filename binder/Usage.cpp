#include "service/Handles.h"
#include "service/LogService.h"

#include <cstdio>

namespace vnlog {

namespace {

constexpr char kUsage[] =
    "\n\nlogset useage:\n\n"
    "logset   <cmd_type>               <cmd_param>\n"
    "         UART_OUTPUT              y/n\n"
    "         NAND_FILE_OUTPUT         y/n\n"
    "         KLOG_OUTPUT              y/n\n"
    "         KLOG_LEVEL               1~7\n"
    "         ALOG_OUTPUT              y/n\n"
    "         ALOG_LEVEL               v/d/i/w/e/f/s\n"
    "         ALOG_MODULE              ALL_MODULE/NONE_MODULE\n"
    "         ALOG_ADD_MODULE          <name>:<level>\n"
    "         ALOG_DEL_MODULE          <name>\n"
    "         ALOG_FORMAT              brief/process/tag/thread/raw/time/threadtime/long\n"
    "         FLUSH_SWITCH             y/n\n"
    "         STORAGE_PATH             <valid path>. e.g. /media/flash/nvm\n"
    "         COPY                     <path>\n"
    "         FLUSH\n"
    "         SHOW\n\n"
    "         KXXX:kernel AXXX:android\n";

} // namespace

void LogService::showHelp() {
    CancelGuard guard;
    puts(kUsage);
    fflush(stdout); // the Android reader writes to the same descriptor without stdio
}

} // namespace vnlog
