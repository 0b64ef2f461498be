#pragma once

#include "buffer/Ring.h"

#include <cstdint>

namespace vnlog {

enum class SaveStatus {
    Saved,
    WriteFailed, ///< a write failed; `moved` bytes had gone before it
    CutFailed, ///< the section could not be ended or the next one not opened
    MediumFull, ///< either, because the medium has no room and nothing is left to be deleted
    RootMoved, ///< the same, because the root was changed while the section was open: worth another try at
               ///< once
};

/** What became of a batch. */
struct SaveResult {
    SaveStatus status;
    uint32_t moved = 0; ///< bytes that left the ring
};

/** Where the flush thread puts the batches. */
class BatchTarget {
  public:
    /** Moves `count` bytes out of the ring. Reports its failures. */
    virtual SaveResult save(uint32_t count) = 0;
    /** Syncs and closes what save has left open. */
    virtual void closeSection() = 0;

  protected:
    ~BatchTarget() = default;
};

/**
 * The flush thread's work: decides when the ring is drained, and how long to wait after a failure, from one
 * second doubling to sixty.
 */
class Flusher {
  public:
    Flusher(const RingState& state, Ring& ring, BatchTarget& target)
        : mState(state), mRing(ring), mTarget(target) {}

    /** Runs until the thread is to end; what is left in the ring then is reported and dropped. Ends as well,
     * reported, when waiting is not possible; what is left stays then. */
    void run();

  private:
    enum class Drain { Idle, Done, Again, Failed, Full };

    void drainUntilDone();
    Drain drain(bool retry, uint32_t requestsSeen);

    const RingState& mState;
    Ring& mRing;
    BatchTarget& mTarget;
};

} // namespace vnlog
