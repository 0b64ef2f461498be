// SPDX-License-Identifier: Apache-2.0
#include "buffer/Flusher.h"

#include "Fixture.h"

using namespace vnlog;

namespace {

using Calls = std::vector<std::string>;
constexpr SaveResult kFailed{SaveStatus::WriteFailed};

/** The storage is the test, which takes out of the ring what its answers claim to have moved. */
class FlusherTest : public FolderTest, BatchTarget, Medium {
  protected:
    void SetUp() override { // not before the object is whole
        state.mFlushInterval = 0;
        state.mFlushThreadRunning = ring.create();
        thread = std::thread([&] { flusher.run(); });
    }
    void TearDown() override {
        stop();
        thread.join();
        ring.release();
    }
    void stop() {
        state.mFlushThreadRunning = false;
        EXPECT_TRUE(ring.wakeConsumer());
    }
    uint32_t freeBytes() override { return ~0U; }
    SaveResult save(uint32_t count) override {
        faults.addCall(std::to_string(count));
        onSave(saves);
        auto result = saves < answers.size() ? answers[saves] : SaveResult{SaveStatus::Saved, count};
        ++saves;
        EXPECT_EQ(ring.take(sink.get(), result.moved).count, result.moved);
        return result;
    }
    bool sync() override { return faults.addCall("sync"), syncs; }
    void closeSection() override { faults.addCall("close"); }
    FlushOutcome flushed(bool sync) { return ring.awaitFlush(ring.requestFlush(sync), 10000); }
    PutStatus put(uint32_t length) { return ring.put(std::string(length, 'x').data(), length).status; }
    /** What the flush thread makes of another record. */
    Calls callsAfter(uint32_t length) {
        faults.recordCalls(true);
        put(length);
        sem_t* posted = &state.mLogBuf->sem_read;
        // The second wake is taken after the look for the first.
        for (int wakes = 0, posts = 1; wakes < 2; ++wakes) {
            EXPECT_TRUE(ring.wakeConsumer());
            EXPECT_TRUE(eventually([&] { return sem_getvalue(posted, &posts) == 0 && posts == 0; }));
        }
        return faults.calls();
    }

    RingState state;
    Ring ring{state, *this};
    Flusher flusher{state, ring, *this};
    std::thread thread;

    std::vector<SaveResult> answers; ///< to the first saves; everything is saved after them
    std::function<void(size_t)> onSave = [](size_t) {};
    size_t saves = 0;
    std::atomic<bool> syncs{true};
    const FileDescriptor sink = openFile("/dev/null", O_WRONLY);
};

} // namespace

TEST_F(FlusherTest, DrainsAboveTheThresholdForARequestTheSwitchAWaitingWriterOrWithTime) {
    EXPECT_EQ(callsAfter(32768), Calls{});
    EXPECT_EQ(callsAfter(1), Calls{"32769"});
    ring.requestFlush();
    EXPECT_EQ(callsAfter(0), Calls{}) << "of an empty ring";
    EXPECT_EQ(callsAfter(1), Calls{}) << "the request is served";
    ring.requestFlush();
    EXPECT_TRUE(eventually([&] { return ring.used() == 0; }));
    state.mFlushSwitch = true;
    EXPECT_EQ(callsAfter(2), Calls{"2"});
    state.mFlushSwitch = false;
    EXPECT_EQ(callsAfter(3), Calls{});
    EXPECT_EQ(callsAfter(kLogBufSize), (Calls{"3", "131072"}));
    state.mFlushInterval = 17;
    EXPECT_EQ(callsAfter(5), Calls{});
    EXPECT_EQ(faults.pauses().front(), 17) << "and no wait before had a limit";
    faults.skipPauses = true; // as if it were over
    faults.recordCalls(true);
    EXPECT_TRUE(ring.wakeConsumer());
    EXPECT_TRUE(eventually([&] { return faults.calls() == Calls{"5", "sync"}; }));
    put(40000); // written at once, and synced when its time comes
    EXPECT_TRUE(eventually([&] { return faults.calls() == Calls{"5", "sync", "40000", "sync"}; }));
}

TEST_F(FlusherTest, PausesTwiceAsLongAfterEachFailureUntilARequestOrAStop) {
    const SaveResult part{SaveStatus::WriteFailed, 1000}, rootMoved{SaveStatus::RootMoved};
    const SaveResult cutFailed{SaveStatus::CutFailed, 39010}; // leaves nothing to be tried again
    for (bool stops : {false, true}) {
        faults.disarm();
        faults.recordCalls(true);
        answers = {kFailed, part, kFailed, rootMoved};
        answers.resize(10, kFailed);
        answers.push_back(cutFailed);
        saves = 0;
        onSave = [](size_t call) { faults.skipPauses = call != 9; };
        put(40000);
        ASSERT_TRUE(eventually([] { return faults.pauses().size() == 8; })) << "the last is a whole one";
        EXPECT_EQ(put(10), PutStatus::Stored);
        EXPECT_TRUE(ring.wakeConsumer());
        EXPECT_TRUE(eventually([] { return faults.pauses().size() == 9; })) << "it goes on";
        EXPECT_EQ(faults.pauses(), (std::vector<long>{1, 2, 4, 8, 16, 32, 60, 60, 60})) << "of 8 failures";
        EXPECT_EQ(put(kLogBufSize), PutStatus::Refused);
        stops ? stop() : (void)ring.requestFlush();
        EXPECT_TRUE(eventually([&] { return loggedTimes("/6: 1 records were refused") == 1 + stops; }));
        EXPECT_TRUE(eventually([&] { return faults.calls().size() == (stops ? 19U : 21U); }));
        EXPECT_EQ(faults.calls().back(), stops ? "close" : "62") << "a flush brings the line about the loss";
        EXPECT_EQ(logged("39010 buffered byte are dropped by the stop\n"), stops);
    }
}

TEST_F(FlusherTest, HearsARequestOrAStopDuringADrain) {
    const SaveResult saved{SaveStatus::Saved, 40000};
    answers = {saved, {SaveStatus::Saved, 100}, kFailed, saved, kFailed};
    onSave = [&](size_t call) {
        if (call == 0)
            put(100);
        if (call == 0 || call == 2)
            ring.requestFlush();
        state.mFlushThreadRunning = call < 4;
    };
    EXPECT_EQ(callsAfter(40000), (Calls{"40000", "100"})) << "what came in between is wanted, too";
    EXPECT_EQ(callsAfter(40000), (Calls{"40000", "close", "40000"}));
    EXPECT_TRUE(faults.pauses().empty());
    put(60000);
    EXPECT_TRUE(eventually([&] { return logged("60000 buffered byte are dropped by the stop\n"); }));
    EXPECT_EQ(loggedTimes("failed to save log"), 1) << "a stop is no failure of the storage";
}

TEST_F(FlusherTest, RequestsAreAnsweredAndUrgentLinesShareASync) {
    faults.recordCalls(true);
    EXPECT_TRUE(flushed(true) == FlushOutcome::Done && faults.calls() == Calls{"sync"}) << "of an empty ring";
    EXPECT_EQ(ring.awaitFlush(ring.requestFlush() + 1000, 20), FlushOutcome::TimedOut);
    for (bool sync : {true, false}) { // each time one fails, and the next one does not
        syncs = !sync;
        answers = {kFailed};
        saves = sync ? 1 : 0;
        put(8);
        EXPECT_EQ(flushed(sync), FlushOutcome::Failed);
        EXPECT_EQ(flushed(false), FlushOutcome::Done);
        put(40000);
        EXPECT_TRUE(eventually([&] { return ring.used() == 0; }));
        EXPECT_EQ(faults.pauses().size(), sync ? 0U : 1U) << "writing goes on without the sync";
    }
    EXPECT_EQ(flusher.counts().failures, 2U);
    syncs = false;
    EXPECT_EQ(flushed(true), FlushOutcome::Failed);
    syncs = true;
    faults.recordCalls(true);
    put(8);
    ring.flushUrgent(); // which is put off, and comes by itself
    EXPECT_TRUE(faults.calls().empty());
    EXPECT_TRUE(eventually([&] { return faults.calls() == Calls{"8", "sync"}; }));
    EXPECT_FALSE(flusher.syncFails());
    onSave = [&](size_t) {
        for (int i = 0; i < 1000 && faults.calls().size() == 1; ++i, ring.flushUrgent())
            put(1);
    };
    faults.recordCalls(true);
    put(10);
    ring.flushUrgent();
    EXPECT_TRUE(eventually([&] { return faults.calls() == Calls{"10", "sync", "1000", "sync"}; }));
    stop();
    EXPECT_EQ(flushed(false), FlushOutcome::NotInService);
}

TEST_F(FlusherTest, NoWakeUpIsLostHoweverRecordsAndRequestsMeetTheDrains) {
    std::mt19937 random(7), during(8);
    onSave = [&](size_t) {
        if (during() % 2 == 0)
            put(25000 + during() % 16000); // the threshold is passed in a drain, or not
    };
    for (int round = 0; round < 2000 && !HasFailure(); ++round) {
        uint32_t length = 8000 + random() % 3000; // three are a little below or above the threshold
        std::thread other([&] { put(length); });
        put(length);
        put(length);
        other.join();
        if (random() % 4 == 0)
            ring.requestFlush();
        EXPECT_TRUE(eventually([&] { return ring.used() <= kFlushThreshold; }));
    }
}
