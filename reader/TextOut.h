// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace vnlog {

/** Writes text to a descriptor, 64 KiB at a time. One thread. */
class TextOut {
  public:
    /** The descriptor stays the caller's. */
    explicit TextOut(int fd) : mFd(fd) { mBuffer.reserve(kSize); }
    ~TextOut() { (void)flush(); }
    TextOut(const TextOut&) = delete;
    TextOut& operator=(const TextOut&) = delete;

    void write(std::string_view text);
    void write(char c) { write(std::string_view(&c, 1)); }
    /** Writes out what is buffered. False when something could not be written, see error(). */
    bool flush();
    /** errno of the first write that failed, 0 without one; nothing is written from then on. */
    int error() const { return mError; }

  private:
    static constexpr size_t kSize = 65536;

    int mFd;
    int mError = 0;
    std::string mBuffer;
};

} // namespace vnlog
