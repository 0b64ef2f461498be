#include "service/Intake.h"

#include "base/Diagnostics.h"
#include "base/Handles.h"
#include "base/KeyValue.h"
#include "binder/Command.h"
#include "service/Lifecycle.h"

namespace vnlog {

bool Intake::inService() const {
    return mService.mFlushThreadRunning;
}

bool Intake::put(const char* line, uint32_t length) {
    return append(line, length);
}

bool Intake::append(const void* bytes, uint32_t length) {
    PutResult result = mRing.put(bytes, length);
    if (result.status == PutStatus::StorageFull)
        giveUpStoring(result); // outside the ring: this ends in a stop, which waits for all to leave it
    return result.status == PutStatus::Stored;
}

/** Switches file output off and stops the flush thread. */
void Intake::giveUpStoring(const PutResult& full) {
    CancelGuard guard;
    mService.mStorageFull = true;
    if (mService.logCMD(CMD_NAND_FILE_OUTPUT, kNo) < 0)
        logError("Failed to close the log storage \n");
    logError("Storage path space is insufficient,free space (%zd),need space (%zd)\n",
             static_cast<ssize_t>(full.freeBytes), static_cast<ssize_t>(full.usedBytes));
    if (!mLifecycle.stopStoring())
        logError("Failed to stop the service \n");
}

} // namespace vnlog
