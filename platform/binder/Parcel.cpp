// SPDX-License-Identifier: Apache-2.0
#include "base/Handles.h"
#include "platform/binder/Transport.h"

#include <binder/IBinder.h>
#include <binder/Parcel.h>
#include <cstring>
#include <fcntl.h>

namespace android {

namespace {

constexpr size_t kAlignment = 4;
/** Stands in the data where a descriptor was written, plus the descriptor's place among them. */
constexpr int32_t kDescriptorMark = 0x46440000; // "FD"

/** `length` rounded up to the next value's start; SIZE_MAX when it cannot be. */
size_t padded(size_t length) {
    return length > SIZE_MAX - (kAlignment - 1) ? SIZE_MAX : (length + kAlignment - 1) & ~(kAlignment - 1);
}

} // namespace

Parcel::Parcel() = default;
Parcel::~Parcel() {
    dropDescriptors();
}

const uint8_t* Parcel::data() const {
    return mData.data();
}

size_t Parcel::dataSize() const {
    return mData.size();
}

size_t Parcel::dataPosition() const {
    return mPosition;
}

void Parcel::setDataPosition(size_t position) const {
    mPosition = position;
}

status_t Parcel::setData(const uint8_t* buffer, size_t length) {
    mData.assign(buffer, buffer + length);
    mPosition = 0;
    dropDescriptors();
    return NO_ERROR;
}

void Parcel::dropDescriptors() {
    for (int fd : mOwned)
        vnlog::closeDescriptor(fd);
    mOwned.clear();
    mDescriptors.clear();
}

void Parcel::append(const void* bytes, size_t length) {
    const auto* first = static_cast<const uint8_t*>(bytes);
    mData.insert(mData.end(), first, first + length);
    while (mData.size() % kAlignment != 0)
        mData.push_back(0);
}

const uint8_t* Parcel::take(size_t length) const {
    size_t step = padded(length);
    if (mPosition > mData.size() || step > mData.size() - mPosition)
        return nullptr;
    const uint8_t* start = mData.data() + mPosition;
    mPosition += step;
    return start;
}

status_t Parcel::writeInt32(int32_t value) {
    append(&value, sizeof value);
    return NO_ERROR;
}

status_t Parcel::writeCString(const char* text) {
    if (text == nullptr)
        return BAD_VALUE;
    append(text, std::strlen(text) + 1);
    return NO_ERROR;
}

status_t Parcel::writeString16(const String16& text) {
    writeInt32(static_cast<int32_t>(text.size()));
    append(text.string(), (text.size() + 1) * sizeof(char16_t));
    return NO_ERROR;
}

status_t Parcel::writeInterfaceToken(const String16& interface) {
    return writeString16(interface);
}

status_t Parcel::writeFileDescriptor(int fd, bool takeOwnership) {
    if (fcntl(fd, F_GETFD) < 0)
        return BAD_VALUE;
    if (mDescriptors.size() == transport::kMaxDescriptors)
        return NO_MEMORY;
    writeInt32(kDescriptorMark + static_cast<int32_t>(mDescriptors.size()));
    mDescriptors.push_back(fd);
    if (takeOwnership)
        mOwned.push_back(fd);
    return NO_ERROR;
}

void Parcel::adopt(const std::vector<int>& received) {
    mDescriptors.insert(mDescriptors.end(), received.begin(), received.end());
    mOwned.insert(mOwned.end(), received.begin(), received.end());
}

status_t Parcel::readInt32(int32_t* value) const {
    const uint8_t* bytes = take(sizeof *value);
    if (bytes == nullptr)
        return NOT_ENOUGH_DATA;
    std::memcpy(value, bytes, sizeof *value);
    return NO_ERROR;
}

int32_t Parcel::readInt32() const {
    int32_t value = 0;
    return readInt32(&value) == NO_ERROR ? value : 0;
}

const char* Parcel::readCString() const {
    if (mPosition >= mData.size())
        return nullptr;
    const uint8_t* start = mData.data() + mPosition;
    const void* end = std::memchr(start, 0, mData.size() - mPosition);
    if (end == nullptr)
        return nullptr;
    size_t length = static_cast<size_t>(static_cast<const uint8_t*>(end) - start);
    return reinterpret_cast<const char*>(take(length + 1));
}

String16 Parcel::readString16() const {
    size_t before = mPosition;
    int32_t length = 0;
    if (readInt32(&length) == NO_ERROR && length >= 0 && static_cast<size_t>(length) < mData.size()) {
        const uint8_t* bytes = take((static_cast<size_t>(length) + 1) * sizeof(char16_t));
        if (bytes != nullptr)
            return String16(reinterpret_cast<const char16_t*>(bytes), static_cast<size_t>(length));
    }
    mPosition = before;
    return String16();
}

int Parcel::readFileDescriptor() const {
    size_t before = mPosition;
    int64_t place = int64_t{readInt32()} - kDescriptorMark;
    if (place >= 0 && place < static_cast<int64_t>(mDescriptors.size()))
        return mDescriptors[static_cast<size_t>(place)];
    mPosition = before;
    return BAD_TYPE;
}

bool Parcel::enforceInterface(const String16& interface) const {
    size_t before = mPosition;
    String16 token = readString16();
    return mPosition != before && token == interface;
}

bool Parcel::checkInterface(IBinder* binder) const {
    return enforceInterface(binder->getInterfaceDescriptor());
}

} // namespace android
