// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Fixture.h"

#include "buffer/Ring.h"
#include "storage/StorageMedium.h"
#include "storage/Store.h"

#include <regex>

/** The bookkeeping file of these four numbers: total, head, tail and oldest. */
inline std::string dataText(const std::string& numbers) {
    const char* lines = "TOTAL_LOG_SIZE=$1\nHEAD_FOLDER_NUM=$2\nTAIL_FOLDER_NUM=$3\nOLDEST_FILE_NUM=$4\n";
    return std::regex_replace(numbers, std::regex("(.*) (.*) (.*) (.*)"), lines);
}

/** A store that is driven step by step, with what it needs; its batches come through a ring. */
struct StoreParts {
    /** With a bound of one MiB and sections of so many bytes. */
    StoreParts(vnlog::FileWork& work, uint32_t section) : files(work) {
        EXPECT_TRUE(systemRoot.read() && ring.create());
        ringState.mFlushThreadRunning = true;
        state.mMaxLogSize = 1;
        state.mLogSectionSize = section;
        state.mLogDeleteSize = 1;
    }
    ~StoreParts() {
        store.reset();
        ring.release();
    }
    /** A new store on this root that knows its paths. */
    void open(const std::string& root) {
        store.reset();
        store = std::make_unique<vnlog::Store>(state, lock, ring, files, systemRoot);
        state.mSavePath = strdup(root.c_str());
        ASSERT_TRUE(store->resolveRoot());
        store->beginRun();
    }
    /** What a start does with what lies there. */
    bool run() { return store->prepare() && store->saveNumbers(); }

    vnlog::StorageState state;
    vnlog::Mutex<vnlog::StorageLock> lock;
    vnlog::StorageMedium medium{state, lock};
    vnlog::RingState ringState;
    vnlog::Ring ring{ringState, medium};
    vnlog::FileWork& files;
    vnlog::platform::SystemRoot systemRoot;
    std::unique_ptr<vnlog::Store> store;
};
