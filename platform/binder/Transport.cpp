// SPDX-License-Identifier: Apache-2.0
#include "platform/binder/Transport.h"

#include "platform/sysroot/SystemRoot.h"

#include <cstring>

namespace android::transport {

Message::Message(void* packet, size_t bytes) : mPiece{packet, bytes} {
    header.msg_iov = &mPiece;
    header.msg_iovlen = 1;
    header.msg_control = mSpace;
    header.msg_controllen = sizeof mSpace;
}

void Message::attach(const std::vector<int>& descriptors) {
    size_t bytes = descriptors.size() * sizeof(int);
    header.msg_controllen = descriptors.empty() ? 0 : CMSG_SPACE(bytes);
    if (cmsghdr* control = CMSG_FIRSTHDR(&header)) {
        control->cmsg_level = SOL_SOCKET;
        control->cmsg_type = SCM_RIGHTS;
        control->cmsg_len = CMSG_LEN(bytes);
        std::memcpy(CMSG_DATA(control), descriptors.data(), bytes);
    }
}

std::vector<int> Message::attached() const {
    const cmsghdr* control = CMSG_FIRSTHDR(&header);
    if (control == nullptr || control->cmsg_level != SOL_SOCKET || control->cmsg_type != SCM_RIGHTS)
        return {};
    std::vector<int> descriptors((control->cmsg_len - CMSG_LEN(0)) / sizeof(int));
    std::memcpy(descriptors.data(), CMSG_DATA(control), descriptors.size() * sizeof(int));
    return descriptors;
}

std::string socketPath(const std::string& name) {
    vnlog::platform::SystemRoot root;
    (void)root.read(); // of a root that is too long there is no such socket
    return root.path + (root.places().socketFolder + ("/" + name));
}

} // namespace android::transport
