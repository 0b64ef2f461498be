// SPDX-License-Identifier: Apache-2.0
#include "reader/Fragments.h"

#include <algorithm>
#include <cstring>

namespace vnlog {

void Fragments::forget() {
    mPiece = {};
    mCarry.clear();
    mGiven = false;
}

bool Fragments::open(int run, uint32_t name, const StoredSection& section) {
    forget();
    return mText.open(run, name, section);
}

bool Fragments::rewind() {
    forget();
    return mText.rewind();
}

bool Fragments::next(Fragment* fragment) {
    if (mGiven) {
        mCarry.clear();
        mGiven = false;
    }
    for (;;) {
        if (mPiece.empty() && !mText.read(&mPiece)) {
            mPiece = {};
            mGiven = !mCarry.empty();
            *fragment = {mCarry, false, false};
            return mGiven;
        }
        const void* newline = std::memchr(mPiece.data(), '\n', mPiece.size());
        const size_t length = newline != nullptr
                                  ? static_cast<size_t>(static_cast<const char*>(newline) - mPiece.data())
                                  : mPiece.size();
        if (newline == nullptr || !mCarry.empty() || length > kLongest) {
            if (join(length, fragment))
                return true;
            continue;
        }
        *fragment = {mPiece.substr(0, length), true, false};
        mPiece.remove_prefix(length + 1);
        return true;
    }
}

/** Takes so many bytes of the piece, and the newline that may follow, to what is carried. True when a
 * fragment is complete with that. */
bool Fragments::join(size_t length, Fragment* fragment) {
    const size_t taken = std::min(length, kLongest - mCarry.size());
    mCarry.append(mPiece.substr(0, taken));
    mPiece.remove_prefix(taken);
    const bool ended = taken == length && !mPiece.empty();
    if (ended)
        mPiece.remove_prefix(1);
    else if (taken == length && mCarry.size() < kLongest)
        return false;
    *fragment = {mCarry, ended, !ended};
    return mGiven = true;
}

} // namespace vnlog
