#include "Fixture.h"

#include "platform/binder/Host.h"
#include "platform/binder/Transport.h"
#include "platform/unix/UnixSocket.h"

#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

using android::Parcel;

namespace {

/** The service behind its socket; the tests' own requests go there, too, as from another process. */
class RemoteTest : public ServiceTest {
  protected:
    void SetUp() override {
        makeFolder(home + "/dev");
        configure();
        catchConsole();
        start(true, false);
        ASSERT_EQ(vnlog::platform::publishService("test.logservice", &service()), android::NO_ERROR);
        mSocket = home + "/dev/test.logservice";
    }
    ~RemoteTest() override { vnlog::platform::withdrawServices(); }

    vnlog::FileDescriptor connect() { return vnlog::platform::connectPacketSocket(mSocket.c_str()); }
    /** Sends the packet and returns the status of its reply. */
    int32_t answer(vnlog::FileDescriptor& socket, const std::string& packet) {
        EXPECT_EQ(write(socket.get(), packet.data(), packet.size()), static_cast<ssize_t>(packet.size()));
        android::transport::ReplyHeader reply{-1234, 0};
        EXPECT_GE(read(socket.get(), &reply, sizeof reply), static_cast<ssize_t>(sizeof reply));
        return reply.status;
    }
    static std::string request(uint32_t code, const std::string& body, uint32_t size) {
        android::transport::RequestHeader header{android::transport::kMagic, code, 0, size};
        return std::string(reinterpret_cast<char*>(&header), sizeof header) + body;
    }
    std::string mSocket;
};

} // namespace

TEST_F(RemoteTest, DamagedRequestsAreRefusedAndSilentClientsHoldNobodyUp) {
    struct stat info;
    ASSERT_EQ(stat(mSocket.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600u);
    std::vector<vnlog::FileDescriptor> silent(20);
    for (auto& client : silent)
        client = connect();
    vnlog::FileDescriptor client = connect();
    EXPECT_EQ(answer(client, "x"), android::BAD_VALUE);
    EXPECT_EQ(answer(client, request(1, "", 4)), android::BAD_VALUE) << "announces more than it has";
    EXPECT_EQ(answer(client, request(1, std::string(70000, 'x'), 70000)), android::BAD_VALUE) << "too large";
    EXPECT_EQ(answer(client, request(1, "none", 4)), -1) << "no token";
    EXPECT_EQ(answer(client, request(99, "", 0)), android::UNKNOWN_TRANSACTION);
    EXPECT_EQ(answer(client, request(android::IBinder::PING_TRANSACTION, "", 0)), android::NO_ERROR);
    Parcel command;
    command.writeInterfaceToken(vnlog::ILogService::descriptor);
    command.writeInt32(8); // and no string
    std::string body(reinterpret_cast<const char*>(command.data()), command.dataSize());
    EXPECT_EQ(answer(client, request(3, body, static_cast<uint32_t>(body.size()))), android::NO_ERROR);
    EXPECT_NE(console().find("logset useage:"), std::string::npos);
    {
        vnlog::FileDescriptor dying = connect(); // asks and does not wait for the answer
        std::string ping = request(android::IBinder::PING_TRANSACTION, "", 0);
        EXPECT_GT(write(dying.get(), ping.data(), ping.size()), 0);
    }
    EXPECT_EQ(answer(client, request(android::IBinder::PING_TRANSACTION, "", 0)), android::NO_ERROR);
}

TEST_F(RemoteTest, SecondPublisherIsRefusedAndAStaleSocketReplaced) {
    EXPECT_EQ(vnlog::platform::publishService("test.logservice", &service()), -EADDRINUSE);
    vnlog::platform::withdrawServices();
    EXPECT_FALSE(exists(mSocket));
    writeFile(mSocket, "a file");
    EXPECT_EQ(vnlog::platform::publishService("test.logservice", &service()), -EEXIST);
    std::filesystem::remove(mSocket);
    EXPECT_EQ(vnlog::platform::publishService("test.logservice", &service()), android::NO_ERROR);
}
