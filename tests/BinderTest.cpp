// SPDX-License-Identifier: Apache-2.0
#include "Fixture.h"

#include "binder/ILogService.h"
#include "platform/binder/Host.h"
#include "platform/unix/UnixSocket.h"

#include <binder/IServiceManager.h>
#include <future>
#include <sys/socket.h>

using namespace android;
using namespace vnlog::platform;
using vnlog::ILogService;

namespace {

constexpr int kWait = 100; ///< a command of the fake service that ends with the next flush
const std::string kPing("1NIBGNP_\0\0\0\0\0\0\0\0", 16); ///< a whole request as it travels

/** Answers with what it was asked. */
struct FakeService : vnlog::BnLogService {
    int flushLogBufAll() override { return ++flushes; }
    int getLogFd() override { return file.empty() ? 7777 : open(file.c_str(), O_RDONLY); }
    int logCMD(int cmd, const char* param) override {
        ++calls;
        bool done = cmd != kWait || eventually([&] { return flushes > 0; });
        return done ? cmd * 100000 + static_cast<int>(strlen(param)) : -1;
    }
    std::atomic<int> flushes{0}, calls{0};
    std::string file; ///< whose descriptor it gives
};

/** A fake service behind its socket. */
class BinderTest : public FolderTest {
  protected:
    BinderTest() {
        makeFolder(home + "/dev");
        EXPECT_EQ(publishService("fake", service), NO_ERROR);
    }
    ~BinderTest() override { withdrawServices(); }
    sp<IBinder> find(const char* name) { return defaultServiceManager()->checkService(String16(name)); }
    sp<IBinder> connect() { return find("./fake"); } ///< as another process does

    const std::string path = home + "/dev/fake";
    const sp<FakeService> service = new FakeService;
};

} // namespace

TEST_F(BinderTest, CallsReachTheServiceUntilItIsWithdrawn) {
    EXPECT_EQ(ILogService::asInterface(find("fake")).get(), service.get());
    sp<IBinder> remote = connect();
    sp<ILogService> proxy = ILogService::asInterface(remote);
    EXPECT_TRUE(proxy->flushLogBufAll() == 1 && proxy->getLogFd() == 7777);
    EXPECT_EQ(proxy->logCMD(15, std::string(60000, 'x').c_str()), 1560000);
    EXPECT_EQ(std::filesystem::status(path).permissions(), std::filesystem::perms{0600});
    EXPECT_EQ(publishService("fake", service), -EADDRINUSE);
    withdrawServices();
    EXPECT_FALSE(remote->isBinderAlive() || connect() != nullptr || exists(path));
    (void)listenPacketSocket(path.c_str(), 0600); // left behind, nobody listens there
    EXPECT_EQ(publishService("fake", service), NO_ERROR);
}

TEST_F(BinderTest, ADescriptorIsHandedOver) {
    sp<ILogService> proxy = ILogService::asInterface(connect());
    service->file = home + "/file";
    EXPECT_EQ(proxy->getLogFd(), -1);
    writeFile(service->file, "x");
    int before = openDescriptors();
    for (int i = 0; i < 100; ++i) {
        vnlog::FileDescriptor own(proxy->getLogFd());
        EXPECT_TRUE(readFile("/dev/fd/" + std::to_string(own.get())) == "x" && fcntl(own.get(), F_GETFD));
    }
    EXPECT_TRUE(eventually([&] { return openDescriptors() == before; })) << "the service closes its own";
}

TEST_F(BinderTest, ClientsLearnWhyAndWaitWithoutDescriptors) {
    const int before = openDescriptors();
    EXPECT_TRUE(reachService("fake") == 0 && reachService("none") == ENOENT);
    EXPECT_EQ(connect()->pingBinder(), NO_ERROR); // by then the server has taken the connection before it
    EXPECT_TRUE(eventually([&] { return openDescriptors() == before; }));
    starveOfDescriptors(true);
    sp<IBinder> client = connect(); // takes the last one
    auto answer = std::async(std::launch::async, [&] { return client->pingBinder(); });
    EXPECT_EQ(answer.wait_for(std::chrono::milliseconds(150)), std::future_status::timeout);
    starveOfDescriptors(false);
    EXPECT_EQ(answer.get(), NO_ERROR);
    vnlog::FileDescriptor stopped = listenPacketSocket((home + "/dev/stopped").c_str(), 0600);
    while (reachService("stopped") == 0)
        ; // each stays in its queue
    EXPECT_TRUE(reachService("stopped") == EAGAIN && publishService("stopped", service) == -EADDRINUSE);
}

TEST_F(BinderTest, DamagedRequestsAreRefused) {
    Parcel nothing, foreign;
    foreign.writeInterfaceToken(String16("com.velnora.IOther"));
    for (uint32_t code : {1, 2, 3, 4})
        EXPECT_TRUE(connect()->transact(code, Parcel(), &nothing) == -1 &&
                    connect()->transact(code, foreign, &nothing) == -1);
    EXPECT_EQ(connect()->transact(5, Parcel(), &nothing), UNKNOWN_TRANSACTION);
    EXPECT_TRUE(service->flushes == 0 && service->calls == 0);
    vnlog::FileDescriptor client = connectPacketSocket(path.c_str());
    for (const std::string& packet : {kPing.substr(1), kPing + "more", "2" + kPing.substr(1), kPing}) {
        int32_t reply[2] = {}; // status, size
        EXPECT_GT(send(client.get(), packet.data(), packet.size(), MSG_NOSIGNAL), 0);
        EXPECT_GT(recv(client.get(), reply, sizeof reply, 0), 0);
        EXPECT_EQ(reply[0], packet == kPing ? NO_ERROR : BAD_VALUE);
    }
}

TEST_F(BinderTest, BusySilentAndGreedyClientsHoldNobodyUp) {
    std::vector<std::thread> busy;
    for (int count = 1; count <= 3; ++count) {
        busy.emplace_back([this] { EXPECT_GT(ILogService::asInterface(connect())->logCMD(kWait, ""), 0); });
        EXPECT_TRUE(eventually([&] { return service->calls == count; })) << "all run at once";
    }
    vnlog::FileDescriptor greedy = connectPacketSocket(path.c_str());
    while (send(greedy.get(), kPing.data(), kPing.size(), MSG_NOSIGNAL) > 0)
        ; // takes no answer, and loses its connection for it
    EXPECT_EQ(ILogService::asInterface(connect())->flushLogBufAll(), 1);
    for (std::thread& client : busy)
        client.join();
    std::vector<sp<IBinder>> silent;
    EXPECT_TRUE(eventually([&] { // 64 with the listening one; those that are gone leave in their own time
        if (sp<IBinder> client = connect(); client->isBinderAlive())
            silent.push_back(client);
        return silent.size() == 63;
    }));
    EXPECT_FALSE(connect()->isBinderAlive()) << "one too many";
    EXPECT_TRUE(eventually([&] { return silent.back()->isBinderAlive() && connect()->isBinderAlive(); }) &&
                !silent.front()->isBinderAlive());
}
