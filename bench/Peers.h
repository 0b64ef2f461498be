// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "bench/Corpus.h"
#include "bench/Sample.h"

#include <functional>
#include <string>
#include <vector>

/* Other log programs, each with the same lines on the input that is natural to it. */
namespace vnlog::bench {

struct Peer {
    std::string name, legend;
    std::vector<std::string> programs; ///< that must be installed
    std::function<Sample(const std::string& folder, const Corpus& corpus)> measure;
};

/** All that are known; none needs more than a folder to work in, nor touches the system's configuration. */
std::vector<Peer> knownPeers();

} // namespace vnlog::bench
