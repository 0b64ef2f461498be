// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "base/Handles.h"
#include "bench/Child.h"
#include "bench/Comparison.h"
#include "bench/Place.h"
#include "bench/Sample.h"

#include <functional>
#include <string>
#include <string_view>
#include <vector>

/* The service as a process of its own, under a system root of its own. */
namespace vnlog::bench {

struct ServiceOptions {
    std::string programs; ///< folder of logserviced
    std::string folder; ///< the system root is made there
    unsigned sectionKib = 64;
    size_t writers = 1; ///< connections that send at the same time
    size_t kernelLines = 0; ///< that come through the kernel's log meanwhile
    bool writeEachLine = false; ///< SAVE_FLUSH_SWITCH
    std::string settings; ///< more lines of the configuration
    bool memoryFile = true; ///< what is buffered lies in a file below `folder`; on a device that is no medium
};

/** A host process and its system root. */
class Service {
  public:
    explicit Service(const ServiceOptions& options);
    ~Service();
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;

    const std::string& root() const { return mPlace.path(); }
    std::string logFolder() const;
    pid_t pid() const { return mHost; }
    const std::string& failure() const { return mFailure; }

    /** Starts the host, behind a tracer where `tracer` names one, and waits until it says that it is ready.
     */
    [[nodiscard]] bool start(const std::vector<std::string>& tracer = {});
    /** Starts the host and returns as soon as it has made its devices. */
    [[nodiscard]] bool launch(const std::vector<std::string>& tracer = {});
    /** A connection that waits while an entry would be lost. Not valid after a failure. */
    [[nodiscard]] FileDescriptor connect();
    /** Sends one entry and waits until the service has stored it: the whole road is open then. */
    [[nodiscard]] bool openRoad(const Corpus& corpus, int writer);
    /** Asks the host to end and waits. False when it did not end in good order. */
    [[nodiscard]] bool stop(Sample* sample);

  private:
    bool fail(const std::string& what);
    bool waitFor(bool (*reached)(const Service&), const char* what);
    bool findHost();

    const ServiceOptions& mOptions;
    Place mPlace;
    Child mChild;
    pid_t mHost = 0; ///< the host's, also behind a tracer
    std::string mFailure;
};

/**
 * Sends the packets `begin` to `end`, each behind `head`, in batches of 64, and waits until the other side
 * has taken all of them. False with errno set.
 */
[[nodiscard]] bool sendPackets(int socket, size_t begin, size_t end,
                               const std::function<std::string_view(size_t)>& packet,
                               const std::string& head = {});

/** Has the service store `count` entries of the corpus and end; compares what it stored. */
Sample measureService(const ServiceOptions& options, const Corpus& corpus, size_t count);

/** System calls per line, as strace counts them; negative when it is missing or counts nothing. */
double countSystemCalls(const ServiceOptions& options, const Corpus& corpus, size_t count);

} // namespace vnlog::bench
