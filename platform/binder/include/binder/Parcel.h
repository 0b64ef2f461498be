// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <utils/Errors.h>
#include <utils/String16.h>
#include <vector>

namespace android {

class IBinder;

/**
 * The arguments or the reply of one transaction: values in the order written, each padded to four bytes,
 * in the byte order of the machine. Reading past the end gives an error status, zero or null and moves
 * nothing. Descriptors travel in replies only.
 */
class Parcel {
  public:
    Parcel();
    ~Parcel();
    Parcel(const Parcel&) = delete;
    Parcel& operator=(const Parcel&) = delete;

    const uint8_t* data() const;
    size_t dataSize() const; ///< bytes written
    size_t dataPosition() const; ///< bytes read so far
    void setDataPosition(size_t position) const;
    /** Replaces all that the parcel holds by a copy of these bytes. */
    status_t setData(const uint8_t* buffer, size_t length);

    status_t writeInt32(int32_t value);
    status_t writeCString(const char* text); ///< BAD_VALUE for null
    status_t writeString16(const String16& text);
    status_t writeInterfaceToken(const String16& interface);
    /**
     * The receiver gets a descriptor of its own for the same open file. With `takeOwnership` the parcel
     * closes `fd` at its own end; otherwise `fd` must stay open for as long. BAD_VALUE, and nothing is taken,
     * when `fd` is no open descriptor; NO_MEMORY when the parcel holds as many as it can.
     */
    status_t writeFileDescriptor(int fd, bool takeOwnership = false);

    int32_t readInt32() const; ///< 0 when nothing is left
    status_t readInt32(int32_t* value) const;
    /** Points into the parcel and lives as long as it; null when no terminated text is left. */
    const char* readCString() const;
    String16 readString16() const; ///< empty when none is left
    /** A descriptor that stays the parcel's: to be duplicated by who keeps it. BAD_TYPE when none is next. */
    int readFileDescriptor() const;
    /** Whether the request carries the token of `binder`'s interface; reads past the token. */
    bool checkInterface(IBinder* binder) const;
    bool enforceInterface(const String16& interface) const;

    // For the stand-in's transport.
    const std::vector<int>& descriptors() const { return mDescriptors; }
    /** Adds descriptors that were received with the data; the parcel owns them from now on. */
    void adopt(const std::vector<int>& received);

  private:
    void append(const void* bytes, size_t length);
    void dropDescriptors();
    const uint8_t* take(size_t length) const;

    std::vector<uint8_t> mData;
    mutable size_t mPosition = 0;
    std::vector<int> mDescriptors; ///< in the order in which they were written
    std::vector<int> mOwned; ///< those of them that are closed with the parcel
};

} // namespace android
