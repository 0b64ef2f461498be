// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "reader/Inspection.h"
#include "reader/LineStream.h"
#include "reader/StoreFolder.h"
#include "tools/logviewOptions.h"

#include <string>

/* The store that logview looks at. */

/** A store that is open, a bundle's included. */
struct OpenStore {
    vnlog::OpenBundle bundle; ///< lasts as long as what was unpacked of it is needed
    vnlog::StoreFolder folder;
    std::string root; ///< that was opened, for texts and for whoever follows it
    bool ofService = false; ///< found by the service's own settings
};

/** Opens the store that is asked for. kGoOn, or kWrongUsage, reported. */
int openStore(const ViewOptions& options, OpenStore* store);

/** Finds the runs that are asked for; `scope` is otherwise left alone. kGoOn or the status, reported: also
 * kNothing, when the store holds no run. */
int chooseRuns(const ViewOptions& options, const OpenStore& store, vnlog::Scope* scope);
