// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "storage/FileWork.h"

#include <cstdint>

namespace vnlog {

/**
 * Ends the texts of a run: each becomes an archive, and where one has an archive already, the two are
 * compared, so that nothing is lost and nothing is there twice. Failures leave errno, the text and the
 * archive; those of the file work are reported there.
 */
class SectionFiles {
  public:
    explicit SectionFiles(FileWork& files) : mFiles(files) {}

    /**
     * Makes an archive of the text of a section. `number` becomes that of the archive, or after a failure of
     * the text: another one where the section's own names are taken by something else. `origin` is what is
     * known of the run.
     */
    [[nodiscard]] bool finish(const char* run, uint32_t* number, const SectionOrigin& origin);
    /** Does so with any other text of a run; one whose archive's name is taken by something else stays. */
    [[nodiscard]] bool finishOther(const char* text);
    /** Gives a log of the older form, compressed or not, the number of a section: 1, or the next that is
     * free. False with errno set when that fails. */
    [[nodiscard]] bool adoptOlder(const char* run);

  private:
    enum class Settled { Done, Failed, NameTaken };
    Settled settle(const char* text, const SectionOrigin& origin);

    FileWork& mFiles;
};

/** The lowest number from `least` on, or else any, that nothing in the run named like a section has. */
uint32_t freeSection(const char* run, uint32_t least);

} // namespace vnlog
