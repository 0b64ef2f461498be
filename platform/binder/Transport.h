// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <binder/Parcel.h>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <sys/socket.h>
#include <vector>

/*
 * How transactions travel between processes: one packet each way over a local socket, the reply's with the
 * descriptors that its parcel holds. A published service listens at <name> in the system root's folder for
 * sockets, open to its own user only.
 */
namespace android::transport {

/** Precedes the parcel's bytes in a request. */
struct RequestHeader {
    uint32_t magic; ///< kMagic
    uint32_t code;
    uint32_t flags;
    uint32_t size; ///< bytes of the parcel that follow
};

/** Precedes the parcel's bytes in a reply. */
struct ReplyHeader {
    int32_t status;
    uint32_t size;
};

constexpr uint32_t kMagic = 0x42494e31; // "BIN1"
constexpr size_t kMaxParcel = 65536; ///< bytes
constexpr size_t kMaxDescriptors = 8; ///< of one parcel

/** A message of one packet, with room for the descriptors beside it. */
struct Message {
    Message(void* packet, size_t bytes);
    Message(const Message&) = delete;
    Message& operator=(const Message&) = delete;
    /** Gives the packet these descriptors, at most kMaxDescriptors of them. */
    void attach(const std::vector<int>& descriptors);
    /** The descriptors that came with a packet that was received: the caller's to close. */
    std::vector<int> attached() const;

    msghdr header{};

  private:
    iovec mPiece;
    alignas(cmsghdr) char mSpace[CMSG_SPACE(kMaxDescriptors * sizeof(int))] = {};
};

/** The packet of a request or a reply: the header, which states the parcel's size, then the parcel's bytes.
 */
template <typename Header> std::vector<uint8_t> makePacket(const Header& header, const Parcel& parcel) {
    std::vector<uint8_t> packet(sizeof header + parcel.dataSize());
    std::memcpy(packet.data(), &header, sizeof header);
    std::copy_n(parcel.data(), parcel.dataSize(), packet.data() + sizeof header);
    return packet;
}

/** Path of the socket of the service `name`. */
std::string socketPath(const std::string& name);

} // namespace android::transport
