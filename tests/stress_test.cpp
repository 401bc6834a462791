// Releases that meet calls, and processes that run long: can0 and can1 on one simulated bus, can2
// and can3 on another. `system` does what the link-down command would, so that a cycle takes
// microseconds.

#include <gtest/gtest.h>
#include <malloc.h>
#include <simcan.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "tn_corvel.h"

using std::chrono::microseconds;

extern "C" int system(const char* command) {
    const std::string words = command;
    if (words.find(" down") != std::string::npos) simcan_linkDown(words.substr(17, 4).c_str());
    return 0;
}

static int32_t initialise(int32_t index) {
    return corvel_initDLL(index, 500, false, 2000);
}

// The first payload byte names the bus.
static void write(int32_t index) {
    const _corvel_CanMsg msg{0x123, {static_cast<uint8_t>(index / 2)}, 1, {}, 0, 0};
    corvel_writeMessage(index, &msg);
}

// True when two sockets opened now keep what is put into them, and get nothing else.
static bool keepsOwnDescriptors() {
    bool kept = true;
    int ends[2];
    socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, ends);
    for (const int end : ends) send(end, "a stranger's", 13, 0);
    std::this_thread::sleep_for(microseconds(200));
    for (const int end : ends) {
        char got[100];
        kept = kept && recv(end, got, sizeof got, MSG_DONTWAIT) == 13 &&
               recv(end, got, sizeof got, MSG_DONTWAIT) == -1;
        close(end);
    }
    return kept;
}

TEST(Stress, CallsThatMeetReleasesTouchNothingElse) {
    std::atomic<long> cycles{0}, received{0}, strays{0}, mixed{0};
    std::vector<std::future<void>> threads;
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(3);
    const auto repeat = [&](auto action) {
        threads.push_back(std::async(std::launch::async, [=] {
            while (std::chrono::steady_clock::now() < end) action();
        }));
    };
    for (const int32_t index : {0, 2}) {
        ASSERT_EQ(initialise(index + 1), CORVEL_SUCCESS);  // a partner that stays
        repeat([=] { write(index + 1), std::this_thread::sleep_for(microseconds(50)); });
        repeat([=] { write(index); });
        repeat([&, index] {
            cycles += initialise(index) == CORVEL_SUCCESS;
            std::this_thread::sleep_for(microseconds(300));
            corvel_freeDLL(index);
        });
        for (int i = 0; i < 2; ++i) {
            repeat([&, index] {
                _corvel_CanMsg msg;
                if (corvel_readMessage(index, &msg, 2) != CORVEL_SUCCESS) return;
                ++received;
                mixed += msg.data[0] != index / 2;
            });
        }
    }
    repeat([&] { strays += !keepsOwnDescriptors(); });
    for (auto& thread : threads) {
        if (thread.wait_until(end + std::chrono::seconds(5)) == std::future_status::ready) continue;
        fprintf(stderr, "a call hangs\n");
        abort();
    }
    corvel_freeDLL(1), corvel_freeDLL(3);
    printf("%ld cycles, %ld frames received\n", cycles.load(), received.load());
    EXPECT_GT(cycles, 20);
    EXPECT_GT(received, 20);
    EXPECT_EQ(strays, 0) << "uses of a bystander's descriptors";
    EXPECT_EQ(mixed, 0) << "frames of another bus";
}

TEST(LongRun, CyclesLeaveDescriptorsAndHeapAsTheyWere) {
    size_t heap = 0;
    const int total = getenv("CORVEL_SHORT") != nullptr ? 200 : 10000;
    for (int i = -10; i <= total && !HasFailure(); ++i) {  // the first make what is made once
        if (i == 0) heap = mallinfo2().uordblks;
        _corvel_CanMsg msg;
        ASSERT_EQ(initialise(0) + initialise(1), CORVEL_SUCCESS);
        write(0);
        ASSERT_EQ(corvel_readMessage(1, &msg, 1000), CORVEL_SUCCESS);
        ASSERT_EQ(corvel_freeDLL(0) + corvel_freeDLL(1), CORVEL_SUCCESS);
    }
    const int lowest = dup(STDERR_FILENO);
    EXPECT_LT(lowest, 20) << "descriptors are left open";
    close(lowest);
    if (total == 10000) {  // else a checker has its own heap
        EXPECT_EQ(mallinfo2().uordblks, heap);
    }
}
