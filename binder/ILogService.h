// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "base/Export.h"

#include <binder/IInterface.h>
#include <binder/Parcel.h>
#include <string>

namespace vnlog {

/**
 * What a client can ask of the log service. Every operation may be called on any thread; on the service's
 * side they run on the host's binder threads, several at once.
 */
class VNLOG_API ILogService : public android::IInterface {
  public:
    /** "com.velnora.ILogService", the token that every request carries. */
    static const android::String16 descriptor;

    /** Transaction codes. Each is a two-way call whose reply begins with one int32. */
    enum Transaction : uint32_t {
        FLUSH_LOG_BUF_ALL = 1, ///< no argument
        GET_LOG_FD = 2, ///< no argument; the reply goes on with the descriptor when there is one
        LOG_CMD = 3, ///< int32 command code, C string parameter
        QUERY = 4, ///< the same; the reply goes on with a C string
    };

    /**
     * The interface behind `obj`: the service itself when it lives in this process, otherwise a new proxy.
     * Null for a null `obj`.
     */
    static android::sp<ILogService> asInterface(const android::sp<android::IBinder>& obj);

    /** The descriptor, for callers that have an object only. */
    virtual const android::String16& getInterfaceDescriptor() const;

    ILogService();
    ~ILogService() override;

    /** Asks for everything buffered to be written out, without waiting for it. Always 0. */
    virtual int flushLogBufAll() = 0;
    /**
     * Opens current/log.txt, the log file of the older form, read-only. The descriptor is one of the calling
     * process and the caller's to close, whether the service is in this process or in another; -1 when there
     * is no such file.
     */
    virtual int getLogFd() = 0;
    /**
     * Runs one command. `param` may be null; commands that need a parameter answer with the usage text then.
     * 0 for success, for answers that only print and for a COPY that failed, which only the Android log
     * tells; -1 for another command that failed or was refused.
     */
    virtual int logCMD(int cmd, const char* param) = 0;
    /**
     * Runs one command as logCMD does, and tells what came of it. 0 when it did what it was asked for;
     * `answer` has its report then, if any: what was copied where, the configuration, the status. Otherwise
     * it has the reason: also a parameter that is not accepted, or a COPY that failed, gives -1 here.
     * UNKNOWN_TRANSACTION from a service that has no such operation, which has done nothing.
     */
    virtual int logQuery(int cmd, const char* param, std::string* answer);
};

/** The service's side: unpacks a transaction and calls the operation on the calling binder thread. */
class VNLOG_API BnLogService : public android::BnInterface<ILogService> {
  public:
    /** android::NO_ERROR, -1 for a foreign interface token (nothing is called), or the base class's answer.
     */
    android::status_t onTransact(uint32_t code, const android::Parcel& data, android::Parcel* reply,
                                 uint32_t flags = 0) override;
};

} // namespace vnlog

/** The client's side: packs a call into a transaction on the remote binder. */
class VNLOG_API BpLogService : public android::BpInterface<vnlog::ILogService> {
  public:
    /** A client of the service behind `remote`, which it keeps. */
    explicit BpLogService(const android::sp<android::IBinder>& remote);
    ~BpLogService() override;

    /** The reply's int32, as of the next two; a transaction that failed is not told apart. */
    int flushLogBufAll() override;
    /** A close-on-exec descriptor of this process, or -1 when it has none left; of a service that hands none
     * over only the number. */
    int getLogFd() override;
    /** The status of a parameter that cannot be packed is returned without sending anything. */
    int logCMD(int cmd, const char* param) override;
    /** A status below -1 when the transaction failed. */
    int logQuery(int cmd, const char* param, std::string* answer) override;
};
