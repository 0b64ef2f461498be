// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "base/Handles.h"
#include "config/ConfigFile.h"
#include "config/Findings.h"
#include "config/SettingsTable.h"

namespace vnlog {

/**
 * A file of settings, read when it is first asked: its significant lines, as of readSignificantLines, with a
 * "?" for a zero byte. What is wrong with it can be told.
 */
class SettingsFile {
  public:
    /** `path` must outlive the object. */
    SettingsFile(const char* path, Configuration whose) : mPath(path), mWhose(whose) {}

    const char* path() const { return mPath; }
    /** Whether any key of the service is in it. Reads it. */
    bool usable();
    /** Whether it was read, or could not be. */
    bool asked() const { return mAsked; }
    /** Why it could not be read; 0 when it was. */
    int error() const { return mError; }
    /** Whether every key occurs that a file must have. */
    bool complete() const;
    /** The value of the setting; null when it has none or, with errno set, there is no memory. */
    Text value(const Setting& setting) const;
    /** The line in which the key of the setting is found; 0 when it is missing. */
    unsigned lineOf(const Setting& setting) const { return placeOf(setting).line; }
    /** Tells the lines that say nothing, or something else than they seem to. */
    void reportLines(Findings& findings) const;

    /** What became of the settings that it was asked for. */
    Outcome outcomes[kSettingCount] = {};

  private:
    struct Line {
        const char* text;
        size_t length;
        unsigned number;
    };

    /** Where a key is first found. */
    struct Place {
        const char* key = nullptr;
        unsigned line = 0;
    };

    void read();
    void findKeys();
    const Place& placeOf(const Setting& setting) const { return mPlaces[&setting - kSettings]; }
    void reportLine(const Line& line, Findings& findings) const;
    void reportUnknown(const Line& line, Findings& findings) const;

    const char* mPath;
    Configuration mWhose;
    Text mText;
    Place mPlaces[kSettingCount];
    int mError = 0;
    bool mAsked = false;
};

} // namespace vnlog
