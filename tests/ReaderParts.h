// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Fixture.h"
#include "platform/sysroot/SystemRoot.h"
#include "sources/LineSink.h"

/** Keeps the lines that a reader stores; room for them is there from the start. */
class FakeSink final : public vnlog::LineSink {
  public:
    FakeSink() { mText.reserve(1 << 18); }
    bool inService() const override { return taking; }
    void lost(vnlog::Loss, uint32_t) override {}
    bool put(const char* line, uint32_t length, int) override {
        if (door && !door(std::string_view(line, length)))
            return false;
        std::lock_guard<std::mutex> lock(mMutex);
        mText.append(line, length);
        return true;
    }
    std::string text() {
        std::lock_guard<std::mutex> lock(mMutex);
        return mText;
    }
    void forget() {
        std::lock_guard<std::mutex> lock(mMutex);
        mText.clear();
    }
    /** Waits until exactly this is stored. */
    bool holds(const std::string& expected) {
        return eventually([&] { return text() == expected; });
    }

    std::atomic<bool> taking{true};
    std::function<bool(std::string_view)> door; ///< asked on the reader's thread whether the line is taken

  private:
    std::mutex mMutex;
    std::string mText;
};

/** A reader's thread, cancelled at the end of the scope. */
struct Worker {
    ~Worker() {
        pthread_cancel(thread.native_handle());
        thread.join();
    }
    std::thread thread;
};

/** A sink and a system root for a reader, which must have closed all that it opened when the test ends. */
class ReaderTest : public FolderTest {
  protected:
    ReaderTest() { EXPECT_TRUE(systemRoot.read()); }
    ~ReaderTest() override {
        unplugDevices();
        EXPECT_TRUE(eventually([this] { return openDescriptors() == descriptors; }));
    }
    /** Switches the output on for a reader that holds back what it has read, in four attempts. */
    void switchOn(vnlog::Flag& output, sem_t& semaphore) {
        EXPECT_TRUE(eventually([] { return faults.reads >= 4; }));
        EXPECT_EQ(sink.text(), "");
        sem_post(&semaphore);
        int left = 1;
        EXPECT_TRUE(eventually([&] { return sem_getvalue(&semaphore, &left) == 0 && left == 0; }));
        output = true;
        sem_post(&semaphore);
    }

    int descriptors = openDescriptors();
    vnlog::platform::SystemRoot systemRoot;
    FakeSink sink;
};
