// Threads that meet releases, and processes that run long. Links with the simulated bus; `system`
// is replaced by what the link-down command would do, so that a cycle takes microseconds. can0 and
// can1 are on one bus, can2 and can3 on another.

#include <gtest/gtest.h>
#include <malloc.h>
#include <simcan.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <thread>

#include "tn_corvel.h"

using std::chrono::steady_clock;

extern "C" int system(const char* command) {
    char name[16];
    char end = 0;
    if (sscanf(command, "sudo ip link set %15s dow%c", name, &end) == 2) simcan_linkDown(name);
    return 0;
}

namespace {

// Under the sanitizers and valgrind, CORVEL_SHORT asks for a fraction of the work.
const int divisor = getenv("CORVEL_SHORT") != nullptr ? 50 : 1;

int32_t initialise(int32_t index) {
    return corvel_initDLL(index, 500, false, 2000);
}

int lowestFreeDescriptor() {
    const int fd = dup(STDERR_FILENO);
    close(fd);
    return fd;
}

// Opens two sockets of its own, leaves a frame in each, and checks that each frame is still there
// and nothing else. Counts what was taken or added.
void useOwnDescriptors(std::atomic<long>& strays) {
    const char frame[16] = "a stranger's";
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, ends), 0);
    for (const int end : ends) ASSERT_EQ(send(end, frame, sizeof frame, 0), 16);
    std::this_thread::sleep_for(std::chrono::microseconds(200));
    for (const int end : ends) {
        char got[100];
        const bool mine = recv(end, got, sizeof got, MSG_DONTWAIT) == sizeof frame &&
                          memcmp(got, frame, sizeof frame) == 0;
        if (!mine || recv(end, got, sizeof got, MSG_DONTWAIT) != -1) ++strays;
        close(end);
    }
}

}  // namespace

TEST(Stress, CallsThatMeetReleasesTouchNothingElse) {
    std::atomic<bool> stop{false};
    std::atomic<int> running{0};
    std::atomic<long> cycles{0}, sent{0}, received{0}, undocumented{0}, strays{0}, mixed{0};
    std::vector<std::thread> threads;
    const auto repeat = [&](const std::function<void()>& action) {
        ++running;
        threads.emplace_back([&stop, &running, action] {
            while (!stop) action();
            --running;
        });
    };
    for (const int32_t index : {0, 2}) {
        ASSERT_EQ(initialise(index + 1), CORVEL_SUCCESS);  // a partner that stays
        repeat([index] {
            const _corvel_CanMsg msg{0x321, {static_cast<uint8_t>(index)}, 1, {}, 0, 0};
            corvel_writeMessage(index + 1, &msg);
            std::this_thread::sleep_for(std::chrono::microseconds(50));
        });
        repeat([&, index] {
            if (initialise(index) != CORVEL_SUCCESS) ++undocumented;
            std::this_thread::sleep_for(std::chrono::microseconds(300));
            if (corvel_freeDLL(index) != CORVEL_SUCCESS) ++undocumented;
            ++cycles;
        });
        for (int i = 0; i < 2; ++i) {
            repeat([&, index] {
                _corvel_CanMsg msg{};
                const int32_t status = corvel_readMessage(index, &msg, 2);
                if (status == CORVEL_SUCCESS) {
                    ++received;
                    if (msg.data[0] != index) ++mixed;
                } else if (status != CORVEL_NO_DEVICE && status != CORVEL_NO_FRAME) {
                    ++undocumented;
                }
            });
        }
        repeat([&, index] {
            _corvel_CanMsg msg{0x123, {static_cast<uint8_t>(index)}, 1, {}, 0, 0};
            const int32_t status = corvel_writeMessage(index, &msg);
            if (status == CORVEL_SUCCESS) {
                ++sent;
            } else if (status != CORVEL_NO_DEVICE && status != CORVEL_NOT_WRITTEN) {
                ++undocumented;
            }
        });
    }
    repeat([&] { useOwnDescriptors(strays); });
    std::this_thread::sleep_for(std::chrono::seconds(4));
    stop = true;
    for (int i = 0; i < 500 && running > 0; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    if (running > 0) {
        fprintf(stderr, "%d threads hang, %ld strays, %ld mixed frames\n", running.load(),
                strays.load(), mixed.load());
        abort();
    }
    for (auto& thread : threads) thread.join();
    corvel_freeDLL(1), corvel_freeDLL(3);
    printf("%ld cycles, %ld frames sent, %ld received\n", cycles.load(), sent.load(),
           received.load());
    EXPECT_GT(cycles, 20);
    EXPECT_GT(received, 20);
    EXPECT_EQ(undocumented, 0) << "statuses";
    EXPECT_EQ(strays, 0) << "a bystander's descriptors";
    EXPECT_EQ(mixed, 0) << "frames of another bus";
}

TEST(LongRun, CyclesLeaveDescriptorsAndHeapAsTheyWere) {
    const auto cycle = [](uint32_t i) {
        _corvel_CanMsg msg{i & 0x7FF, {}, 8, {}, 0, 0}, got{};
        ASSERT_EQ(initialise(0), CORVEL_SUCCESS);
        ASSERT_EQ(initialise(1), CORVEL_SUCCESS);
        ASSERT_EQ(corvel_writeMessage(0, &msg), CORVEL_SUCCESS);
        ASSERT_EQ(corvel_readMessage(1, &got, 1000), CORVEL_SUCCESS);
        ASSERT_EQ(got.id, msg.id);
        ASSERT_EQ(corvel_freeDLL(0), CORVEL_SUCCESS);
        ASSERT_EQ(corvel_freeDLL(1), CORVEL_SUCCESS);
    };
    for (uint32_t i = 0; i < 10; ++i) cycle(i);  // whatever is made once
    const int descriptor = lowestFreeDescriptor();
    const size_t heap = mallinfo2().uordblks;
    const uint32_t total = 10000u / static_cast<uint32_t>(divisor);
    for (uint32_t i = 0; i < total && !HasFatalFailure(); ++i) cycle(i);
    const size_t heapAfter = mallinfo2().uordblks;
    printf("%u cycles: next descriptor %d before, %d after; heap %zu bytes before, %zu after\n",
           total, descriptor, lowestFreeDescriptor(), heap, heapAfter);
    EXPECT_EQ(lowestFreeDescriptor(), descriptor);
    EXPECT_EQ(heapAfter, heap);
}
