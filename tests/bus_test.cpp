// What an application sees of can0 and can1 on one bus, be it simulated, the kernel's virtual one
// or a real one. CORVEL_TEST_REMOVE is a command that removes can0; CORVEL_CLASSIC says that the
// controllers know no CAN FD, and hold four frames.

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

#include "tn_corvel.h"

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

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
    // Takes frames until none comes for half a second.
    int takeAll() {
        pollfd waiting{m_fd, POLLIN, 0};
        char frame[CANFD_MTU];
        while (poll(&waiting, 1, 500) == 1 && read(m_fd, frame, CANFD_MTU) == CAN_MTU) ++m_taken;
        return m_taken;
    }
    int taken() const { return m_taken; }

private:
    const int m_fd = socket(PF_CAN, SOCK_RAW, CAN_RAW);
    std::atomic<int> m_taken{0};
};

class BusTest : public testing::Test {
protected:
    const bool m_canFd = getenv("CORVEL_CLASSIC") == nullptr;

    static void open(bool canFd0, bool canFd1) {
        ASSERT_EQ(corvel_initDLL(0, 500, canFd0, 2000), CORVEL_SUCCESS);
        ASSERT_EQ(corvel_initDLL(1, 500, canFd1, 2000), CORVEL_SUCCESS);
    }
    void TearDown() override { corvel_freeDLL(0), corvel_freeDLL(1); }
    static int32_t write(int32_t index, uint32_t number = 0) {
        _corvel_CanMsg msg{number & 0x7FF, {}, 4, {}, 0, 0};
        memcpy(msg.data, &number, 4);
        return corvel_writeMessage(index, &msg);
    }
    static int32_t read(int32_t index, uint32_t timeout, uint32_t* number = nullptr) {
        _corvel_CanMsg msg;
        const int32_t status = corvel_readMessage(index, &msg, timeout);
        if (status == CORVEL_SUCCESS && number != nullptr) memcpy(number, msg.data, 4);
        return status;
    }
    using End = std::pair<int32_t, Clock::time_point>;
    // Begins a read that waits, in the background; expectEnd() sees it come back without a frame.
    static std::future<End> startRead(int32_t index) {
        auto result = std::async(std::launch::async, [index] {
            const int32_t status = read(index, 20000);
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

TEST_F(BusTest, OtherSocketsReceiveWhatTheyEnabledAndTheSenderDoesNot) {
    for (const auto& [canFd, received] : {std::pair(true, 0), std::pair(false, 1)}) {
        if (canFd && !m_canFd) continue;
        open(canFd, m_canFd);
        Listener own("can0"), other("can1");
        EXPECT_EQ(write(0), CORVEL_SUCCESS);
        EXPECT_EQ(read(1, 2000), CORVEL_SUCCESS) << "sent as CAN FD: " << canFd;
        EXPECT_EQ(own.takeAll(), received) << "sent as CAN FD: " << canFd;
        EXPECT_EQ(other.takeAll(), received) << "sent as CAN FD: " << canFd;
        EXPECT_EQ(read(0, 0), CORVEL_NO_FRAME);
        TearDown();
    }
}

TEST_F(BusTest, ABurstIsLostToTheSlowReceiverAlone) {
    open(false, false);
    Listener quick("can1");
    auto taken = std::async(std::launch::async, [&] { return quick.takeAll(); });
    for (int i = 0; i < 300; ++i) {
        ASSERT_EQ(write(0), CORVEL_SUCCESS) << i;
        while (i - quick.taken() > 50 &&
               taken.wait_for(milliseconds(1)) != std::future_status::ready) {
        }
    }
    EXPECT_EQ(taken.get(), 300);
    int kept = 0;
    while (read(1, 0) == CORVEL_SUCCESS) ++kept;
    printf("burst of 300 frames: 300 written, %d read\n", kept);
    EXPECT_GE(kept, 200);
    EXPECT_LT(kept, 300);
}

// As many as CORVEL_FRAMES says; 5,000 when it says nothing, or CORVEL_SHORT is set.
TEST_F(BusTest, ManyFramesInOrder) {
    const char* const wanted = getenv("CORVEL_SHORT") ? nullptr : getenv("CORVEL_FRAMES");
    const auto total = static_cast<uint32_t>(atol(wanted != nullptr ? wanted : "5000"));
    const uint32_t ahead = m_canFd ? 100 : 2;
    open(m_canFd, m_canFd);
    std::atomic<uint32_t> taken{0};
    auto sent = std::async(std::launch::async, [&] {
        uint32_t i = 0;
        const auto deadline = Clock::now() + std::chrono::seconds(80);
        while (i < total && Clock::now() < deadline) {
            if (i < taken + ahead && write(0, i) == CORVEL_SUCCESS) {
                ++i;
            } else {
                std::this_thread::yield();
            }
        }
        return i;
    });
    for (uint32_t number; taken < total; ++taken) {
        if (read(1, 5000, &number) != CORVEL_SUCCESS || number != taken) break;
    }
    printf("%u of %u frames in order\n", taken.load(), total);
    EXPECT_EQ(taken.exchange(total), total) << "lost, doubled or out of order after this many";
    EXPECT_EQ(sent.get(), total);
    EXPECT_EQ(read(1, 20), CORVEL_NO_FRAME);
}

// Both a read that waits and one that waits its turn come back when the device is released, and a
// device initialised again at once is theirs in no way.
TEST_F(BusTest, AReleaseEndsReads) {
    open(false, false);
    auto first = startRead(0), second = startRead(0);
    const auto start = Clock::now();
    EXPECT_EQ(corvel_freeDLL(0), CORVEL_SUCCESS);
    EXPECT_EQ(corvel_initDLL(0, 500, false, 0), CORVEL_SUCCESS);
    EXPECT_EQ(write(1), CORVEL_SUCCESS);
    EXPECT_EQ(read(0, 2000), CORVEL_SUCCESS);
    expectEnd(first, "released", start),
        expectEnd(second, "released while it waited its turn", start);
}

// A link that goes down by other hands is reported once; a release ends what waits nevertheless.
TEST_F(BusTest, ACutLinkEndsOneReadAndAReleaseTheNext) {
    const char* const removal = getenv("CORVEL_TEST_REMOVE");
    open(false, false);
    auto first = startRead(0);
    auto start = Clock::now();
    ASSERT_EQ(system(removal != nullptr ? removal : "sudo ip link set can0 down"), 0);
    expectEnd(first, removal != nullptr ? "adapter removed" : "link taken down", start);
    if (removal == nullptr) {
        start = Clock::now();
        EXPECT_EQ(read(0, 300), CORVEL_NO_FRAME);
        EXPECT_GE(Clock::now() - start, milliseconds(300)) << "told a second time";
        auto second = startRead(0);
        start = Clock::now();
        EXPECT_EQ(corvel_freeDLL(0), CORVEL_SUCCESS);
        expectEnd(second, "released on a link that was down", start);
    } else {
        EXPECT_EQ(write(0), CORVEL_NOT_WRITTEN);
        EXPECT_EQ(corvel_freeDLL(0), CORVEL_SUCCESS);
        EXPECT_EQ(corvel_initDLL(0, 500, false, 0), CORVEL_NO_DEVICE);
    }
}

// Writes on a link that is down do not take from reads what tells them so.
TEST_F(BusTest, ReadsKeepTheirTimeOutWhileTheLinkGoesDownUnderWrites) {
    open(false, false);
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
        const auto deadline = Clock::now() + std::chrono::seconds(5);
        while (reads < before + 3 && Clock::now() < deadline)
            std::this_thread::sleep_for(milliseconds(1));
        EXPECT_GE(reads, before + 3) << "a read outlasts its time-out, in round " << round;
        system("sudo ip link set can0 up type can bitrate 500000 sample-point 0.875 restart-ms 0");
    }
    stop = true;
    EXPECT_EQ(corvel_freeDLL(0), CORVEL_SUCCESS);
    EXPECT_GT(writes, 10);
}
