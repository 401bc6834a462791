// What an application sees of can0 and can1 on one bus, be it simulated, the kernel's virtual one
// or a real one. CORVEL_TEST_CUT is a command that removes can0.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <linux/can.h>
#include <net/if.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <future>
#include <thread>
#include <utility>

#include "tn_corvel.h"

using std::chrono::milliseconds;
using std::chrono::steady_clock;

// What is sent, and what of it arrives: identifier word, length, remote and extended.
struct Sample {
    const char* name;
    _corvel_CanMsg sent;
    uint32_t id;
    uint8_t len, remote, extended;
};
static const Sample inBothModes[] = {
    {"standard", {0x123, {1, 2, 3}, 3, {}, 0, 0}, 0x123, 3, 0, 0},
    {"empty", {0, {}, 0, {}, 0, 0}, 0, 0, 0, 0},
    {"highest standard", {0x7FF, {8, 7, 6, 5, 4, 3, 2, 1}, 8, {}, 0, 0}, 0x7FF, 8, 0, 0},
    {"extended", {0x1ABCDE, {0xFF}, 1, {}, 0, 1}, 0x801ABCDE, 1, 0, 1},
    {"extended, small", {0x123, {0x55, 0xAA}, 2, {}, 0, 1}, 0x80000123, 2, 0, 1},
    {"highest extended", {0x1FFFFFFF, {9}, 1, {}, 0, 2}, 0x9FFFFFFF, 1, 0, 1},
    {"flag in the identifier", {0x80000123, {9}, 1, {}, 0, 0}, 0x80000123, 1, 0, 1},
};
static const Sample inClassicMode[] = {
    {"remote", {0x7FF, {}, 2, {}, 1, 0}, 0x400007FF, 2, 1, 0},
    {"extended remote", {0x1ABCDE, {}, 0, {}, 255, 1}, 0xC01ABCDE, 0, 1, 1},
    {"9 bytes", {0x123, {1, 2, 3, 4, 5, 6, 7, 8}, 9, {}, 0, 0}, 0x123, 8, 0, 0},
};
static const _corvel_CanMsg& plain = inBothModes[0].sent;

// Another program's socket on an interface, which receives classic frames alone.
class Listener {
public:
    explicit Listener(const char* interface) {
        ifreq request{};
        strcpy(request.ifr_name, interface);
        sockaddr_can address{};
        address.can_family = AF_CAN;
        EXPECT_EQ(ioctl(m_fd, SIOCGIFINDEX, &request), 0);
        address.can_ifindex = request.ifr_ifindex;
        EXPECT_EQ(bind(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    }
    ~Listener() { close(m_fd); }
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    // Takes frames until none comes for half a second.
    int takeAll() {
        pollfd waiting{m_fd, POLLIN, 0};
        canfd_frame frame;
        while (poll(&waiting, 1, 500) == 1 && read(m_fd, &frame, sizeof frame) == CAN_MTU)
            ++m_taken;
        return m_taken;
    }
    int taken() const { return m_taken; }

private:
    const int m_fd = socket(PF_CAN, SOCK_RAW, CAN_RAW);
    std::atomic<int> m_taken{0};
};

class BusTest : public testing::Test {
protected:
    void open(bool canFd0, bool canFd1) {
        ASSERT_EQ(corvel_initDLL(0, 500, canFd0, 2000), CORVEL_SUCCESS);
        ASSERT_EQ(corvel_initDLL(1, 500, canFd1, 2000), CORVEL_SUCCESS);
    }
    void TearDown() override { corvel_freeDLL(0), corvel_freeDLL(1); }

    // Sends a frame from one device and expects it on the other, and nothing on either after it.
    static void exchange(int32_t from, int32_t to, const Sample& sample) {
        SCOPED_TRACE(sample.name);
        _corvel_CanMsg got, expected;
        memset(&got, 0xA5, sizeof got);
        memset(&expected, 0xA5, sizeof expected);
        expected.id = sample.id;
        expected.len = sample.len;
        expected.remote = sample.remote;
        expected.extended = sample.extended;
        memcpy(expected.data, sample.sent.data, sample.len);
        ASSERT_EQ(corvel_writeMessage(from, &sample.sent), CORVEL_SUCCESS);
        ASSERT_EQ(corvel_readMessage(to, &got, 2000), CORVEL_SUCCESS);
        // Controllers need not keep the payload that a remote frame does not have.
        if (sample.remote != 0) memcpy(expected.data, got.data, sample.len);
        EXPECT_EQ(memcmp(&got, &expected, sizeof got), 0);
    }
    // Waits for a frame in the background; gives the status and when it came.
    static auto startRead(int32_t index) {
        auto read = std::async(std::launch::async, [index] {
            _corvel_CanMsg msg;
            const int32_t status = corvel_readMessage(index, &msg, 20000);
            return std::make_pair(status, steady_clock::now());
        });
        std::this_thread::sleep_for(milliseconds(150));
        return read;
    }
    static void expectNoFrame(int32_t index, uint32_t timeout) {
        _corvel_CanMsg got;
        EXPECT_EQ(corvel_readMessage(index, &got, timeout), CORVEL_NO_FRAME) << "can" << index;
    }
};

TEST_F(BusTest, EveryKindOfFrameBothWaysAndNoEcho) {
    for (const bool canFd : {false, true}) {
        open(canFd, canFd);
        for (const auto& sample : inBothModes) exchange(0, 1, sample), exchange(1, 0, sample);
        for (const auto& sample : inClassicMode) {
            if (canFd) {
                EXPECT_EQ(corvel_writeMessage(0, &sample.sent), CORVEL_NOT_WRITTEN) << sample.name;
            } else {
                exchange(0, 1, sample), exchange(1, 0, sample);
            }
        }
        for (const int32_t index : {0, 1}) {
            expectNoFrame(index, 50);
            EXPECT_EQ(corvel_freeDLL(index), CORVEL_SUCCESS);
        }
    }
}

TEST_F(BusTest, ADeviceInCanFdModeReceivesClassicFrames) {
    open(false, true);
    for (const auto& sample : inBothModes) exchange(0, 1, sample);
    for (const auto& sample : inClassicMode) exchange(0, 1, sample);
}

TEST_F(BusTest, OtherSocketsReceiveWhatTheyEnabledOnTheSendersInterfaceToo) {
    for (const auto& [canFd, received] : {std::pair(true, 0), std::pair(false, 1)}) {
        open(canFd, true);
        Listener own("can0"), other("can1");
        exchange(0, 1, inBothModes[0]);
        EXPECT_EQ(own.takeAll(), received) << "sent as CAN FD: " << canFd;
        EXPECT_EQ(other.takeAll(), received) << "sent as CAN FD: " << canFd;
        TearDown();
    }
}

TEST_F(BusTest, ABurstIsLostToTheSlowReceiverAlone) {
    open(false, false);
    Listener quick("can1");
    auto taken = std::async(std::launch::async, [&] { return quick.takeAll(); });
    for (int i = 0; i < 300; ++i) {
        ASSERT_EQ(corvel_writeMessage(0, &plain), CORVEL_SUCCESS) << i;
        while (i - quick.taken() > 50 &&
               taken.wait_for(milliseconds(0)) != std::future_status::ready)
            std::this_thread::yield();
    }
    EXPECT_EQ(taken.get(), 300);
    int kept = 0;
    for (_corvel_CanMsg got; corvel_readMessage(1, &got, 0) == CORVEL_SUCCESS;) ++kept;
    printf("burst of 300 frames: 300 written, %d read\n", kept);
    EXPECT_GE(kept, 250);
    EXPECT_LT(kept, 300);
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
    expectNoFrame(1, 20);
}

// Both a read that waits and one that waits its turn come back when the device is released, and a
// device initialised again at once is theirs in no way.
TEST_F(BusTest, AReleaseEndsReads) {
    open(false, false);
    auto first = startRead(0), second = startRead(0);
    const auto released = steady_clock::now();
    EXPECT_EQ(corvel_freeDLL(0), CORVEL_SUCCESS);
    EXPECT_EQ(corvel_initDLL(0, 500, false, 0), CORVEL_SUCCESS);
    exchange(1, 0, inBothModes[0]);
    for (auto* const read : {&first, &second}) {
        const auto [status, time] = read->get();
        EXPECT_EQ(status, CORVEL_NO_FRAME);
        EXPECT_LT(time - released, std::chrono::seconds(3));
    }
}

// A link that goes down by other hands is reported to a socket once.
TEST_F(BusTest, ACutLinkEndsOneRead) {
    const char* const removal = getenv("CORVEL_TEST_CUT");
    open(false, false);
    auto read = startRead(0);
    const auto start = steady_clock::now();
    ASSERT_EQ(system(removal != nullptr ? removal : "sudo ip link set can0 down"), 0);
    const auto [status, time] = read.get();
    EXPECT_EQ(status, CORVEL_NO_FRAME);
    EXPECT_LT(time - start, std::chrono::seconds(3));
    if (removal == nullptr) {
        const auto again = steady_clock::now();
        expectNoFrame(0, 300);
        EXPECT_GE(steady_clock::now() - again, milliseconds(300)) << "told a second time";
    }
    if (dlsym(RTLD_DEFAULT, "simcan_linkDown") == nullptr) {  // where it is not remembered
        EXPECT_EQ(corvel_writeMessage(0, &plain), CORVEL_NOT_WRITTEN);
    }
    EXPECT_EQ(corvel_freeDLL(0), CORVEL_SUCCESS);
    EXPECT_EQ(corvel_initDLL(0, 500, false, 0),
              removal != nullptr ? CORVEL_NO_DEVICE : CORVEL_SUCCESS);
}
