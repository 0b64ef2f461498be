// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "base/Handles.h"
#include "reader/StoreFolder.h"
#include "storage/SectionFacts.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace vnlog {

/** The sections of one run as they were listed, and what those tell of themselves. One thread at a time. */
class RunSections {
  public:
    /** Takes the run's open folder. False with errno set. */
    [[nodiscard]] bool open(uint32_t run, FileDescriptor folder);
    void close();

    uint32_t run() const { return mRun; }
    int folder() const { return mFolder.get(); }
    const std::vector<StoredSection>& sections() const { return mSections; }

    /** The facts of a section, null without any. Valid until the next call for another section but the one
     * before it. */
    const SectionFacts* facts(size_t index);
    /** Whether its facts tell that no line of it is dated within these, in ns since the epoch. */
    bool outside(size_t index, int64_t since, int64_t until);
    /** Whether the section before is there as well, so that a line may be cut between the two. */
    bool follows(size_t index) const;
    enum class Start { Line, Rest, Unknown };
    /** With what the section begins, as far as facts tell. */
    Start start(size_t index);

  private:
    struct Known {
        size_t index = SIZE_MAX;
        bool has = false;
        SectionFacts facts;
    };

    uint32_t mRun = 0;
    FileDescriptor mFolder;
    std::vector<StoredSection> mSections;
    Known mKnown[2]; ///< of the sections with even and with odd index that were asked for last
};

} // namespace vnlog
