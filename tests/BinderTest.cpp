#include "Fixture.h"

#include "binder/Command.h"

using android::IInterface;
using android::Parcel;
using android::sp;

namespace {

class BinderTest : public ServiceTest {
  protected:
    sp<android::IBinder> binder() { return IInterface::asBinder(&service()); }
    android::status_t transact(uint32_t code, const Parcel& data, Parcel* reply) {
        return binder()->transact(code, data, reply);
    }
    /** A request that carries the service's token. */
    static void begin(Parcel& data) { data.writeInterfaceToken(vnlog::ILogService::descriptor); }
};

} // namespace

TEST_F(BinderTest, LocalObjectIsReachedDirectlyAndAProxyByTransactions) {
    configure();
    start(false, false);
    EXPECT_EQ(vnlog::ILogService::asInterface(nullptr), nullptr);
    EXPECT_EQ(vnlog::ILogService::asInterface(binder()).get(), &service());
    EXPECT_EQ(binder()->getInterfaceDescriptor(), android::String16("com.velnora.ILogService"));

    sp<vnlog::ILogService> proxy = new BpLogService(binder());
    EXPECT_EQ(IInterface::asBinder(proxy), binder());
    EXPECT_EQ(proxy->flushLogBufAll(), 0);
    EXPECT_TRUE(service().mFlushAll);
    EXPECT_EQ(proxy->getLogFd(), -1) << "there is no current log file";
    writeFile(logs + "/current/log.txt", "text");
    int fd = proxy->getLogFd();
    EXPECT_GE(fd, 0);
    close(fd);
    testing::internal::CaptureStdout();
    EXPECT_EQ(proxy->logCMD(vnlog::CMD_SHOW, "ignored"), 0);
    EXPECT_NE(testing::internal::GetCapturedStdout().find("current log cfg:\nUART_OUTPUT=n\n"),
              std::string::npos);
    EXPECT_LT(proxy->logCMD(vnlog::CMD_SHOW, nullptr), 0) << "a null parameter is not sent";
}

TEST_F(BinderTest, ForeignAndDamagedRequestsDoNothing) {
    configure();
    start(false, false);
    Parcel foreign, reply;
    foreign.writeInterfaceToken(android::String16("com.velnora.IOther"));
    for (uint32_t code : {1u, 2u, 3u}) {
        EXPECT_EQ(transact(code, foreign, &reply), -1);
        EXPECT_EQ(transact(code, Parcel(), &reply), -1);
    }
    EXPECT_EQ(reply.dataSize(), 0u);
    EXPECT_FALSE(service().mFlushAll);

    Parcel cut; // a command without its parameter
    begin(cut);
    cut.writeInt32(vnlog::CMD_NAND_FILE_OUTPUT);
    testing::internal::CaptureStdout();
    EXPECT_EQ(transact(3, cut, &reply), android::NO_ERROR);
    EXPECT_NE(testing::internal::GetCapturedStdout().find("logset useage:"), std::string::npos);
    EXPECT_EQ(reply.readInt32(), 0);
    EXPECT_TRUE(service().mKLogToFile) << "nothing has changed";

    Parcel open; // text without its end
    const uint8_t bytes[] = {'a', 'b', 'c', 'd'};
    open.setData(bytes, sizeof bytes);
    EXPECT_EQ(open.readCString(), nullptr);
    EXPECT_EQ(open.readString16().size(), 0u);

    Parcel unknown;
    begin(unknown);
    EXPECT_EQ(transact(4, unknown, &reply), android::UNKNOWN_TRANSACTION);
    EXPECT_TRUE(logged("ILogService/6: [onTransact:92] Unknown code: 0x4\n"));
    EXPECT_EQ(transact(android::IBinder::INTERFACE_TRANSACTION, Parcel(), &reply), android::NO_ERROR);
}

TEST_F(BinderTest, CommandsAreRefusedUntilTheServiceRuns) {
    LogService& s = deferred();
    EXPECT_EQ(s.logCMD(vnlog::CMD_FLUSH, nullptr), -1);
    EXPECT_TRUE(logged("logCMD failed: service is not start\n"));
    EXPECT_EQ(s.flushLogBufAll(), 0);
    EXPECT_FALSE(s.mFlushAll) << "there is no buffer to flush";
    EXPECT_EQ(s.bufferedBytes(), 0u);
}
