// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>

namespace vnlog {

/** Collects what is wrong with files of settings. */
class Findings {
  public:
    /** Tells one of `path` and its line, 0 for the file as a whole. The text is cut at 511 characters. */
    [[gnu::format(printf, 4, 5)]] void add(const char* path, unsigned line, const char* format, ...);
    /** How many there were. */
    unsigned count() const { return mCount; }
    /** Whether more would not be shown. */
    virtual bool enough() const { return false; }

  protected:
    ~Findings() = default;

  private:
    /** Shows a finding to whoever is to see it; the text holds no control characters. */
    virtual void show(const char* path, unsigned line, const char* text) = 0;

    unsigned mCount = 0;
};

/** Reports them to the Android log, the first fifty: a file of garbage must not flood it. */
class LoggedFindings final : public Findings {
  public:
    bool enough() const override;

  private:
    void show(const char* path, unsigned line, const char* text) override;
};

} // namespace vnlog
