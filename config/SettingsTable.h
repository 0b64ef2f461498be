// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "config/ServiceState.h"
#include "sources/Filter.h"

#include <cstddef>

/* The one table that says all about each setting. */
namespace vnlog {

/** Numbers from minimum to maximum. */
struct Range {
    int minimum;
    int maximum;
    bool holds(int value) const { return value >= minimum && value <= maximum; }
};

/** Fits no number. */
constexpr Range kNowhere = {1, 0};

/** A number: how it is kept, and what it may be. */
struct Number {
    int (*get)(const ServiceState&) = nullptr;
    void (*set)(ServiceState&, int) = nullptr;
    Range range = kNowhere;
    Range inEnvironment = kNowhere; ///< what the variable of the same name may be
    int fallback = 0;
    Range adjusted = kNowhere; ///< where a value out of range becomes the nearest one inside, at a start
    bool anyParsed = false; ///< the parsing of a file takes any value
    Range (*given)(const ServiceState&) = nullptr; ///< the range where settings before it tell; it begins
                                                   ///< with the fallback
};

enum class Kind {
    Switch, ///< y or n, in one flag or two
    GivenUp, ///< written as a switch; one that is read as on tells that storing was
    Root,
    Number,
    Level, ///< the letter of a priority, kept as text
    Priority, ///< the letter of a priority, kept as its number
    FilterText, ///< kept only until the filter is built, and written by it
};

/** What became of one setting in one file. */
enum class Outcome {
    NotAsked,
    Taken,
    Adjusted, ///< something like it was taken
    Refused, ///< missing or wrong: another source is asked
    Left, ///< missing, as it may be: environment and default are asked, but no other file
};

/** A text that the filter is built from. */
struct FilterSetting {
    char* ServiceState::*text = nullptr;
    const char* noMemory = "fail to malloc cfg value!\n"; ///< report when there is no memory for the value
    void (Filter::*print)(FILE*) = nullptr;
    Outcome (*judge)(const char* text) = nullptr;
};

/** All about one setting. What its kind does not use is null. */
struct Setting {
    const char* key; ///< with the "="
    Kind kind;
    bool optional = false; ///< written only where it was set
    const char* expected = nullptr; ///< what a value is to be, for people; a number has a range for that
    const char* fallback = nullptr; ///< instead of a missing environment variable
    Flag ServiceState::*flag = nullptr;
    Flag ServiceState::*secondFlag = nullptr;
    Number number{};
    FilterSetting filter{};

    /** Whether a file without the key is as good as one with it. */
    bool mayBeMissing() const { return optional || kind == Kind::GivenUp; }
    /** Whether a file without the key has lost something; a missing switch is off. */
    bool needed() const { return !mayBeMissing() && kind != Kind::Switch && kind != Kind::Root; }
    /** Of a number: what it may be. */
    Range range(const ServiceState& state) const {
        return number.given != nullptr ? number.given(state) : number.range;
    }
};

constexpr size_t kSettingCount = 18;
/** All settings, in the order in which they are read and written. */
extern const Setting kSettings[kSettingCount];

/** Characters of a key without its "=". */
size_t nameLength(const Setting& setting);

} // namespace vnlog
