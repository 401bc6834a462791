// What an application sees of a bus, through the exported functions alone: can0 and can1 on one
// bus, simulated or real.

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <future>
#include <thread>
#include <utility>

#include "tn_corvel.h"

using std::chrono::steady_clock;

static const struct {
    const char* name;
    _corvel_CanMsg msg;
} frames[] = {
    {"standard", {0x123, {1, 2, 3}, 3, {}, 0, 0}},
    {"empty", {0, {}, 0, {}, 0, 0}},
    {"highest standard", {0x7FF, {8, 7, 6, 5, 4, 3, 2, 1}, 8, {}, 0, 0}},
    {"extended", {0x1ABCDE, {0xFF}, 1, {}, 0, 1}},
    {"extended, small", {0x123, {0x55, 0xAA}, 2, {}, 0, 1}},
    {"highest extended", {0x1FFFFFFF, {1, 2, 3, 4, 5, 6, 7, 8}, 8, {}, 0, 2}},
    {"flag in the identifier", {0x80000123, {9}, 1, {}, 0, 0}},
    {"remote", {0x7FF, {}, 2, {}, 1, 0}},
    {"extended remote", {0x1ABCDE, {}, 0, {}, 255, 1}},
};

static int32_t initialise(int32_t index, bool canFd) {
    return corvel_initDLL(index, 500, canFd, 2000);
}

class BusTest : public testing::Test {
protected:
    void open(bool canFd0, bool canFd1) {
        ASSERT_EQ(initialise(0, canFd0), CORVEL_SUCCESS);
        ASSERT_EQ(initialise(1, canFd1), CORVEL_SUCCESS);
    }
    void TearDown() override { corvel_freeDLL(0), corvel_freeDLL(1); }

    // Sends a frame and checks that the other device receives it.
    static void exchange(int32_t from, int32_t to, const _corvel_CanMsg& sent) {
        _corvel_CanMsg got;
        memset(&got, 0xA5, sizeof got);
        _corvel_CanMsg expected = got;
        const bool extended = sent.extended || (sent.id & 0x80000000u);
        expected.id =
            (sent.id & 0x1FFFFFFF) | (extended ? 0x80000000u : 0) | (sent.remote ? 0x40000000u : 0);
        expected.len = sent.len > 8 ? 8 : sent.len;
        expected.remote = sent.remote != 0;
        expected.extended = extended;
        // Controllers need not keep the payload that a remote frame does not have.
        ASSERT_EQ(corvel_writeMessage(from, &sent), CORVEL_SUCCESS);
        ASSERT_EQ(corvel_readMessage(to, &got, 2000), CORVEL_SUCCESS);
        memcpy(expected.data, sent.remote ? got.data : sent.data, expected.len);
        EXPECT_EQ(memcmp(&got, &expected, sizeof got), 0);
    }
};

TEST_F(BusTest, EveryKindOfFrameBothWays) {
    for (const bool canFd : {false, true}) {
        open(canFd, canFd);
        for (const auto& frame : frames) {
            SCOPED_TRACE(frame.name);
            if (canFd && frame.msg.remote != 0) {
                EXPECT_EQ(corvel_writeMessage(0, &frame.msg), CORVEL_NOT_WRITTEN);
                continue;
            }
            exchange(0, 1, frame.msg);
            exchange(1, 0, frame.msg);
        }
        _corvel_CanMsg longest{0x123, {1, 2, 3, 4, 5, 6, 7, 8}, 9, {}, 0, 0};
        if (canFd) {
            EXPECT_EQ(corvel_writeMessage(0, &longest), CORVEL_NOT_WRITTEN);
            longest.len = 8;
        }
        exchange(0, 1, longest);
        _corvel_CanMsg got;
        for (const int32_t index : {0, 1}) {
            EXPECT_EQ(corvel_readMessage(index, &got, 50), CORVEL_NO_FRAME) << "no echo, no excess";
            EXPECT_EQ(corvel_freeDLL(index), CORVEL_SUCCESS);
        }
    }
}

TEST_F(BusTest, ADeviceInCanFdModeReceivesClassicFrames) {
    open(false, true);
    for (const auto& frame : frames) exchange(0, 1, frame.msg);
}

TEST_F(BusTest, StatusesOfInitialising) {
    EXPECT_EQ(initialise(77, false), CORVEL_NO_DEVICE);
    EXPECT_EQ(initialise(0, false), CORVEL_SUCCESS);
    EXPECT_EQ(initialise(0, false), CORVEL_NO_DEVICE);
    EXPECT_EQ(corvel_freeDLL(0), CORVEL_SUCCESS);
    EXPECT_EQ(corvel_freeDLL(0), CORVEL_NO_DEVICE);
}

// As many as CORVEL_FRAMES says, 10,000 when it says nothing, or fewer for CORVEL_SHORT.
TEST_F(BusTest, ManyFramesInOrder) {
    const char* const wanted = getenv("CORVEL_FRAMES");
    const auto total = getenv("CORVEL_SHORT") ? 5000u
                       : wanted               ? static_cast<uint32_t>(atol(wanted))
                                              : 10000u;
    open(true, true);
    std::atomic<uint32_t> taken{0};
    std::atomic<long> repeated{0};
    std::thread sender([&] {
        for (uint32_t i = 0; i < total; ++i) {
            const auto deadline = steady_clock::now() + std::chrono::seconds(10);
            while (i - taken > 100 && steady_clock::now() < deadline) std::this_thread::yield();
            _corvel_CanMsg msg{i & 0x7FF, {}, 4, {}, 0, 0};
            memcpy(msg.data, &i, sizeof i);
            while (corvel_writeMessage(0, &msg) == CORVEL_NOT_WRITTEN) {
                if (steady_clock::now() > deadline) return;
                ++repeated;
            }
        }
    });
    for (; taken < total; ++taken) {
        _corvel_CanMsg got;
        uint32_t counter = 0;
        if (corvel_readMessage(1, &got, 5000) != CORVEL_SUCCESS) break;
        memcpy(&counter, got.data, sizeof counter);
        if (counter != taken) break;
    }
    printf("%u of %u frames in order, %ld writes repeated\n", taken.load(), total, repeated.load());
    EXPECT_EQ(taken, total) << "lost, doubled or out of order after this many";
    taken = total;
    sender.join();
    _corvel_CanMsg got;
    EXPECT_EQ(corvel_readMessage(1, &got, 20), CORVEL_NO_FRAME) << "one too many";
}

// Reads in the background for 20 s at most; gives the status and when it came.
static auto startRead(int32_t index) {
    return std::async(std::launch::async, [index] {
        _corvel_CanMsg msg;
        const int32_t status = corvel_readMessage(index, &msg, 20000);
        return std::make_pair(status, steady_clock::now());
    });
}

// Both a read that waits and one that waits its turn come back when the device is released, and a
// device initialised again at once is theirs in no way.
TEST_F(BusTest, AReleaseEndsReads) {
    open(false, false);
    std::future<std::pair<int32_t, steady_clock::time_point>> reads[] = {startRead(0),
                                                                         startRead(0)};
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    const auto released = steady_clock::now();
    EXPECT_EQ(corvel_freeDLL(0), CORVEL_SUCCESS);
    EXPECT_EQ(initialise(0, false), CORVEL_SUCCESS);
    exchange(1, 0, frames[0].msg);
    for (auto& read : reads) {
        const auto [status, time] = read.get();
        EXPECT_EQ(status, CORVEL_NO_FRAME);
        EXPECT_LT(time - released, std::chrono::seconds(3));
    }
}

// The same when the link goes behind the library's back: CORVEL_TEST_CUT is a command for that.
TEST_F(BusTest, ACutLinkEndsReads) {
    const char* const cut = getenv("CORVEL_TEST_CUT");
    if (cut == nullptr) GTEST_SKIP() << "only on real interfaces";
    open(false, false);
    auto read = startRead(0);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    const auto start = steady_clock::now();
    ASSERT_EQ(system(cut), 0);
    const auto [status, time] = read.get();
    EXPECT_EQ(status, CORVEL_NO_FRAME);
    EXPECT_LT(time - start, std::chrono::seconds(3));
    EXPECT_EQ(corvel_writeMessage(0, &frames[0].msg), CORVEL_NOT_WRITTEN);
    EXPECT_EQ(corvel_freeDLL(0), CORVEL_SUCCESS);
    const bool exists = access("/sys/class/net/can0", F_OK) == 0;
    EXPECT_EQ(initialise(0, false), exists ? CORVEL_SUCCESS : CORVEL_NO_DEVICE);
}
