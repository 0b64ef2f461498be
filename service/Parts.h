// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "binder/Dispatcher.h"
#include "buffer/Flusher.h"
#include "buffer/Ring.h"
#include "config/Settings.h"
#include "service/Comeback.h"
#include "service/Intake.h"
#include "service/LastWords.h"
#include "service/Lifecycle.h"
#include "service/LogService.h"
#include "service/Status.h"
#include "service/Workers.h"
#include "sources/AndroidReader.h"
#include "sources/KernelReader.h"
#include "storage/ChosenFileWork.h"
#include "storage/Shell.h"
#include "storage/StorageMedium.h"
#include "storage/Store.h"

namespace vnlog {

/** The parts behind the service, each wired to those that it knows. */
struct ServiceParts {
    explicit ServiceParts(LogService& service);

    platform::SystemRoot systemRoot; ///< read at construction and at every start
    Mutex<CommandLock> commandLock;
    Mutex<StorageLock> storageLock;
    StorageMedium medium;
    Console console;
    Ring ring;
    Shell shell;
    ChosenFileWork files;
    Store store;
    Flusher flusher;
    Filter filter;
    Intake intake;
    KernelReader kernelReader;
    AndroidLine androidLine;
    AndroidReader androidReader;
    Settings settings;
    Workers workers;
    Status status;
    LastWords lastWords;
    Comeback comeback;
    Dispatcher dispatcher;
    Lifecycle lifecycle;
};

} // namespace vnlog
