// What an application sees of can0 and can1 on one bus, be it simulated, the kernel's virtual one
// or a real one. CORVEL_TEST_REMOVE is a command that removes can0; CORVEL_CLASSIC says that the
// controllers know no CAN FD, and hold four frames.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <future>
#include <thread>

#include "tn_corvel.h"

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using std::this_thread::sleep_for;

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

// Makes a call in the background, again and again while it lives, with pauses where it fails.
class Repeated {
public:
    explicit Repeated(const std::function<bool()>& call)
        : m_thread(std::async(std::launch::async, [=] {
              for (; !m_stop; ++m_done) {
                  const bool succeeded = call();
                  m_succeeded += succeeded;
                  if (!succeeded) sleep_for(std::chrono::microseconds(200));
              }
          })) {}
    ~Repeated() {
        m_stop = true;
        if (m_thread.wait_for(std::chrono::seconds(10)) == std::future_status::ready) return;
        fprintf(stderr, "a call hangs\n");
        abort();
    }
    std::atomic<long> m_done{0}, m_succeeded{0};

private:
    std::atomic<bool> m_stop{false};
    std::future<void> m_thread;
};

// A read of can0 that waits in the background.
class WaitingRead {
public:
    WaitingRead() { sleep_for(milliseconds(150)); }
    void endsWhen(const char* cause, const std::function<int()>& action) {
        const auto start = Clock::now();
        EXPECT_EQ(action(), 0) << cause;
        EXPECT_EQ(m_status.wait_for(std::chrono::seconds(10)), std::future_status::ready) << cause;
        EXPECT_EQ(m_status.get(), CORVEL_NO_FRAME);
        const std::chrono::duration<double, std::milli> time = m_end - start;
        printf("a read that waited came back after %.0f ms: %s\n", time.count(), cause);
    }

private:
    Clock::time_point m_end;
    std::future<int32_t> m_status = std::async(std::launch::async, [this] {
        const int32_t status = read(0, 20000);
        m_end = Clock::now();
        return status;
    });
};

class BusTest : public testing::Test {
protected:
    static void openBoth(bool canFd = false) {
        ASSERT_EQ(open(0, canFd) + open(1, canFd), CORVEL_SUCCESS);
    }
    ~BusTest() override { corvel_freeDLL(0), corvel_freeDLL(1); }
};

TEST_F(BusTest, ManyFramesInOrder) {
    const bool classic = getenv("CORVEL_CLASSIC") != nullptr;
    const int32_t total = 5000, ahead = classic ? 2 : 100;
    openBoth(!classic);
    std::atomic<int32_t> sent{0}, taken{0};
    {
        const Repeated writer(
            [&] { return sent < total && sent < taken + ahead && write(0, sent) == 0 && ++sent; });
        for (int32_t number; taken < total; ++taken) {
            if (read(1, 5000, &number) != CORVEL_SUCCESS || number != taken) break;
        }
    }
    EXPECT_EQ(taken, total) << "lost, doubled or out of order after this many";
    EXPECT_EQ(read(1, 20), CORVEL_NO_FRAME);
}

// Both a read that waits and one that waits its turn come back when the device is released, and a
// device initialised again at once is theirs in no way.
TEST_F(BusTest, AReleaseEndsReads) {
    openBoth();
    WaitingRead first, second;
    first.endsWhen("released", [&] {
        second.endsWhen("released while it waited its turn", [] {
            EXPECT_EQ(corvel_freeDLL(0) + open(0) + write(1), CORVEL_SUCCESS);
            return read(0, 2000);
        });
        return 0;
    });
}

// A link that goes down by other hands is reported once; a release ends what waits nevertheless.
TEST_F(BusTest, ACutLinkEndsOneReadAndAReleaseTheNext) {
    openBoth();
    WaitingRead first;
    if (const char* const removal = getenv("CORVEL_TEST_REMOVE")) {
        first.endsWhen("adapter removed", [=] { return system(removal); });
        EXPECT_EQ(write(0), CORVEL_NOT_WRITTEN);
        EXPECT_EQ(corvel_freeDLL(0), CORVEL_SUCCESS);
        EXPECT_EQ(open(0), CORVEL_NO_DEVICE);
        return;
    }
    first.endsWhen("link taken down", [] { return system("sudo ip link set can0 down"); });
    const auto start = Clock::now();
    EXPECT_EQ(read(0, 300), CORVEL_NO_FRAME);
    EXPECT_GE(Clock::now() - start, milliseconds(300)) << "told a second time";
    WaitingRead().endsWhen("released, link down already", [] { return corvel_freeDLL(0); });
}

// Writes without pause on a link that goes down do not take from reads what tells them so.
TEST_F(BusTest, NoCallHangsWhileTheLinkGoesDownAndTheDeviceIsReleased) {
    openBoth();
    const Repeated reader([] { return read(0, 20) == 0; }), writer([] { return write(0), true; });
    const auto goesOn = [&](const char* cause) {
        const long before = reader.m_done;
        const auto end = Clock::now() + std::chrono::seconds(5);
        while (reader.m_done < before + 3 && Clock::now() < end) sleep_for(milliseconds(1));
        EXPECT_GE(reader.m_done, before + 3) << "a read outlasts its time-out: " << cause;
    };
    for (int round = 0; round < 12 && !HasFailure(); ++round) {
        EXPECT_EQ(system("sudo ip link set can0 down"), 0);
        goesOn("link taken down");
        system("sudo ip link set can0 up type can bitrate 500000 sample-point 0.875 restart-ms 0");
        if (round % 2 == 0) continue;
        EXPECT_EQ(corvel_freeDLL(0) + open(0) + write(1), CORVEL_SUCCESS);
        goesOn("released");
    }
    EXPECT_GT(reader.m_succeeded, 0);
    corvel_freeDLL(0);
}
