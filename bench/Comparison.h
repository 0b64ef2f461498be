// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "bench/Corpus.h"
#include "bench/Sample.h"

#include <string>
#include <vector>

namespace vnlog::bench {

/** How stored lines relate to those of a corpus. */
enum class Form {
    Exact, ///< the same lines in the same order
    Prefixed, ///< the same, each behind something of the program's own, and among lines of its own
    AnyOrder, ///< the same lines, from several writers
};

/** The stored sections of a system root's default store, oldest first. */
std::vector<std::string> storedSections(const std::string& root);

/**
 * Reads the files, compressed or not, one after the other as one text and compares its lines with the first
 * `count` of the corpus; sets what is lost and the bytes of the files, and the failure when one cannot be
 * read. Lines that begin with `others` are left out; their number is the result.
 */
size_t compare(const std::vector<std::string>& files, const Corpus& corpus, size_t count, Form form,
               Sample* sample, const std::string& others = {});

} // namespace vnlog::bench
