// SPDX-License-Identifier: Apache-2.0
#include "reader/TextOut.h"

#include "base/Handles.h"

#include <cerrno>

namespace vnlog {

void TextOut::write(std::string_view text) {
    if (mBuffer.size() + text.size() > kSize)
        (void)flush();
    if (text.size() <= kSize) {
        mBuffer.append(text);
        return;
    }
    if (mError == 0 && !writeAll(mFd, text.data(), text.size()))
        mError = errno;
}

bool TextOut::flush() {
    if (mError == 0 && !mBuffer.empty() && !writeAll(mFd, mBuffer.data(), mBuffer.size()))
        mError = errno;
    mBuffer.clear();
    return mError == 0;
}

} // namespace vnlog
