// What an application sees of can0 and can1 on one bus, be it simulated, the kernel's virtual one
// or a real one. CORVEL_TEST_REMOVE is a command that removes can0; CORVEL_CLASSIC says that the
// controllers know no CAN FD, and hold four frames. On the simulated bus also what takes thousands
// of initialisations.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "tn_corvel.h"

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

// On the simulated bus a link goes down without a command, and so in microseconds.
static const auto simulatedLinkDown =
    reinterpret_cast<void (*)(const char*)>(dlsym(RTLD_DEFAULT, "simcan_linkDown"));
extern "C" int system(const char* command) {
    static const auto real = reinterpret_cast<decltype(&system)>(dlsym(RTLD_NEXT, "system"));
    if (simulatedLinkDown == nullptr) return real(command);
    const std::string words = command;
    if (words.find(" down") != std::string::npos) simulatedLinkDown(words.substr(17, 4).c_str());
    return 0;
}

static int32_t open(int32_t index, bool canFd = false) {
    return corvel_initDLL(index, 500, canFd, 2000);
}
static int32_t write(int32_t index, int32_t number = 0) {
    _corvel_CanMsg msg{static_cast<uint32_t>(number & 0x7FF), {}, 4, {}, 0, 0};
    memcpy(msg.data, &number, 4);
    return corvel_writeMessage(index, &msg);
}
static int32_t read(int32_t index, uint32_t timeout, int32_t* number = nullptr) {
    _corvel_CanMsg msg;
    const int32_t status = corvel_readMessage(index, &msg, timeout);
    if (status == CORVEL_SUCCESS && number != nullptr) memcpy(number, msg.data, 4);
    return status;
}

class BusTest : public testing::Test {
protected:
    static void openBoth(bool canFd = false) {
        ASSERT_EQ(open(0, canFd) + open(1, canFd), CORVEL_SUCCESS);
    }
    void TearDown() override { corvel_freeDLL(0), corvel_freeDLL(1); }
    using End = std::pair<int32_t, Clock::time_point>;
    // Begins a read that waits, in the background; expectEnd() sees it come back without a frame.
    static std::future<End> startRead() {
        auto result = std::async(std::launch::async, [] {
            const int32_t status = read(0, 20000);
            return End(status, Clock::now());
        });
        std::this_thread::sleep_for(milliseconds(150));
        return result;
    }
    static void expectEnd(std::future<End>& read, const char* cause, Clock::time_point since) {
        EXPECT_EQ(read.wait_for(std::chrono::seconds(10)), std::future_status::ready) << cause;
        const auto [status, end] = read.get();
        EXPECT_EQ(status, CORVEL_NO_FRAME);
        const double ms = std::chrono::duration<double, std::milli>(end - since).count();
        printf("a read that waited came back after %.0f ms: %s\n", ms, cause);
    }
};

TEST_F(BusTest, ABurstBeyondTheReceiversQueueIsLost) {
    openBoth();
    for (int i = 0; i < 300; ++i) ASSERT_EQ(write(0), CORVEL_SUCCESS) << i;
    std::this_thread::sleep_for(std::chrono::seconds(1));
    int kept = 0;
    while (read(1, 0) == CORVEL_SUCCESS) ++kept;
    printf("burst of 300 frames: 300 written, %d read\n", kept);
    EXPECT_GE(kept, 200);
    EXPECT_LT(kept, 300);
}

// As many as CORVEL_FRAMES says; 5,000 when it says nothing, or CORVEL_SHORT is set.
TEST_F(BusTest, ManyFramesInOrder) {
    const char* const wanted = getenv("CORVEL_SHORT") ? nullptr : getenv("CORVEL_FRAMES");
    const int32_t total = atoi(wanted != nullptr ? wanted : "5000");
    const bool classic = getenv("CORVEL_CLASSIC") != nullptr;
    const int32_t ahead = classic ? 2 : 100;
    openBoth(!classic);
    std::atomic<int32_t> taken{0};
    auto sent = std::async(std::launch::async, [&] {
        int32_t i = 0;
        while (i < total && taken < total) {
            if (i < taken + ahead && write(0, i) == CORVEL_SUCCESS) {
                ++i;
            } else {
                std::this_thread::yield();
            }
        }
        return i;
    });
    for (int32_t number; taken < total; ++taken) {
        if (read(1, 5000, &number) != CORVEL_SUCCESS || number != taken) break;
    }
    EXPECT_EQ(taken.exchange(total), total) << "lost, doubled or out of order after this many";
    EXPECT_EQ(sent.get(), total);
    EXPECT_EQ(read(1, 20), CORVEL_NO_FRAME);
}

// Both a read that waits and one that waits its turn come back when the device is released, and a
// device initialised again at once is theirs in no way.
TEST_F(BusTest, AReleaseEndsReads) {
    openBoth();
    auto first = startRead(), second = startRead();
    const auto start = Clock::now();
    EXPECT_EQ(corvel_freeDLL(0) + open(0) + write(1), CORVEL_SUCCESS);
    EXPECT_EQ(read(0, 2000), CORVEL_SUCCESS);
    expectEnd(first, "released", start);
    expectEnd(second, "released while it waited its turn", start);
}

// A link that goes down by other hands is reported once; a release ends what waits nevertheless.
TEST_F(BusTest, ACutLinkEndsOneReadAndAReleaseTheNext) {
    const char* const removal = getenv("CORVEL_TEST_REMOVE");
    openBoth();
    auto first = startRead();
    auto start = Clock::now();
    ASSERT_EQ(system(removal != nullptr ? removal : "sudo ip link set can0 down"), 0);
    expectEnd(first, removal != nullptr ? "adapter removed" : "link taken down", start);
    if (removal == nullptr) {
        start = Clock::now();
        EXPECT_EQ(read(0, 300), CORVEL_NO_FRAME);
        EXPECT_GE(Clock::now() - start, milliseconds(300)) << "told a second time";
        auto second = startRead();
        start = Clock::now();
        EXPECT_EQ(corvel_freeDLL(0), CORVEL_SUCCESS);
        expectEnd(second, "released on a link that was down", start);
    } else {
        EXPECT_EQ(write(0), CORVEL_NOT_WRITTEN);
        EXPECT_EQ(corvel_freeDLL(0), CORVEL_SUCCESS);
        EXPECT_EQ(open(0), CORVEL_NO_DEVICE);
    }
}

// Writes on a link that is down do not take from reads what tells them so.
TEST_F(BusTest, ReadsKeepTheirTimeOutWhileTheLinkGoesDownUnderWrites) {
    openBoth();
    std::atomic<bool> stop{false};
    std::atomic<long> reads{0}, writes{0};
    auto reader = std::async(std::launch::async, [&] {
        for (; !stop; ++reads) read(0, 20);
    });
    auto writer = std::async(std::launch::async, [&] {
        for (; !stop; ++writes) write(0);
    });
    for (int round = 0; round < 10 && !HasFailure(); ++round) {
        EXPECT_EQ(system("sudo ip link set can0 down"), 0);
        const long before = reads;
        const auto end = Clock::now() + std::chrono::seconds(5);
        while (reads < before + 3 && Clock::now() < end)
            std::this_thread::sleep_for(milliseconds(1));
        EXPECT_GE(reads, before + 3) << "a read outlasts its time-out, in round " << round;
        system("sudo ip link set can0 up type can bitrate 500000 sample-point 0.875 restart-ms 0");
    }
    stop = true;
    EXPECT_EQ(corvel_freeDLL(0), CORVEL_SUCCESS);
    EXPECT_GT(writes, 10);
}

class SimulatedTest : public testing::Test {
    void SetUp() override {
        if (simulatedLinkDown == nullptr) GTEST_SKIP() << "would run commands for minutes";
    }
};

TEST_F(SimulatedTest, CallsMeetReleases) {
    std::atomic<long> cycles{0}, received{0};
    std::vector<std::future<void>> threads;
    const auto end = Clock::now() + std::chrono::seconds(3);
    const auto repeat = [&](auto action) {
        threads.push_back(std::async(std::launch::async, [=] {
            while (Clock::now() < end) {
                action();
                std::this_thread::sleep_for(std::chrono::microseconds(20));
            }
        }));
    };
    ASSERT_EQ(open(1), CORVEL_SUCCESS);
    repeat([] { write(1); });
    repeat([&] {
        cycles += open(0) == CORVEL_SUCCESS;
        std::this_thread::sleep_for(std::chrono::microseconds(300));
        corvel_freeDLL(0);
    });
    for (int i = 0; i < 2; ++i) {
        repeat([] { write(0); });
        repeat([&] { received += read(0, 2) == CORVEL_SUCCESS; });
    }
    for (auto& thread : threads) {
        if (thread.wait_until(end + std::chrono::seconds(5)) == std::future_status::ready) continue;
        fprintf(stderr, "a call hangs\n");
        abort();
    }
    corvel_freeDLL(1);
    printf("%ld cycles, %ld frames received\n", cycles.load(), received.load());
    EXPECT_GT(std::min<long>(cycles, received), 20);
}

TEST_F(SimulatedTest, CyclesLeaveDescriptorsAndHeapAsTheyWere) {
    size_t heap = 0;
    const int total = getenv("CORVEL_SHORT") != nullptr ? 200 : 10000;
    int lowest = 0;
    for (int i = -10; i <= total && !HasFailure(); ++i) {  // the first make what is made once
        if (i == 0) heap = mallinfo2().uordblks, close(lowest = dup(STDERR_FILENO));
        ASSERT_EQ(open(0) + open(1) + write(0) + read(1, 1000), CORVEL_SUCCESS);
        ASSERT_EQ(corvel_freeDLL(0) + corvel_freeDLL(1), CORVEL_SUCCESS);
    }
    EXPECT_EQ(dup(STDERR_FILENO), lowest) << "descriptors are left open";
    if (total == 10000) {  // else a checker has its own heap
        EXPECT_EQ(mallinfo2().uordblks, heap);
    }
}
