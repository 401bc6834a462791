// What an application sees of can0 and can1 on one bus: simulated, virtual or real.
// CORVEL_TEST_REMOVE is a command that removes can0; CORVEL_CLASSIC says that the controllers know
// no CAN FD, and hold four frames.

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <future>
#include <thread>

#include "tn_corvel.h"

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

static const char* const cut = "sudo ip link set can0 down";
static const char* const bringUp =
    "sudo ip link set can0 up type can bitrate 500000 sample-point 0.875 restart-ms 0";

// Repeats a call in the background while the object lives, with a pause after each failure.
class Repeated {
public:
    explicit Repeated(const std::function<bool()>& call)
        : m_thread([=] {
              for (; !m_stop; ++m_done) {
                  if (!call()) sleep_for(std::chrono::microseconds(200));
              }
          }) {}
    ~Repeated() {
        m_stop = true;
        m_thread.join();
    }
    std::atomic<long> m_done{0};

private:
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

// Waits at least ten seconds for a condition; false if it did not come true.
static bool eventually(const std::function<bool()>& happened) {
    for (int i = 0; i < 10000 && !happened(); ++i) sleep_for(milliseconds(1));
    return happened();
}

// True when the thread waits for a frame, or for its turn.
static bool isWaiting(pid_t thread) {
    std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/syscall");
    long call = -1;
    return file >> call && (call == SYS_pselect6 || call == SYS_futex);
}

// A read of can0 that waits in the background.
class WaitingRead {
public:
    WaitingRead() {
        EXPECT_TRUE(eventually([this] { return isWaiting(m_thread); }));
    }
    void returnsAfter(const std::function<int()>& action) {
        EXPECT_EQ(action(), 0);
        ASSERT_EQ(m_status.wait_for(std::chrono::seconds(10)), std::future_status::ready);
        EXPECT_EQ(m_status.get(), CORVEL_NO_FRAME);
    }

private:
    std::atomic<pid_t> m_thread{0};
    std::future<int32_t> m_status = std::async(std::launch::async, [this] {
        m_thread = gettid();
        return read(0, 20000);
    });
};

class BusTest : public testing::Test {
protected:
    static void openBoth(bool canFd = false) {
        ASSERT_EQ(open(0, canFd), CORVEL_SUCCESS);
        ASSERT_EQ(open(1, canFd), CORVEL_SUCCESS);
    }
    ~BusTest() override {
        corvel_freeDLL(0);
        corvel_freeDLL(1);
    }
};

TEST_F(BusTest, ManyFramesArriveInOrder) {
    const int32_t total = 5000, ahead = getenv("CORVEL_CLASSIC") != nullptr ? 2 : 100;
    openBoth(ahead > 2);
    std::atomic<int32_t> taken{0};
    const Repeated writer([&, sent = 0]() mutable {
        const unsigned long here = 1UL << sched_getcpu();  // across processors, order may be lost
        if (sent == 0) syscall(SYS_sched_setaffinity, 0, sizeof here, &here);
        return sent < std::min(total, taken + ahead) && write(0, sent) == 0 && ++sent > 0;
    });
    for (int32_t number = -1; taken < total; ++taken) {
        ASSERT_EQ(read(1, 5000, &number), CORVEL_SUCCESS) << "after " << taken;
        ASSERT_EQ(number, taken) << "lost, doubled or out of order";
    }
    EXPECT_EQ(read(1, 20), CORVEL_NO_FRAME);
}

TEST_F(BusTest, AReleaseEndsAReadAndThoseThatWaitTheirTurn) {
    openBoth();
    WaitingRead first, second;
    first.returnsAfter([] { return corvel_freeDLL(0); });
    second.returnsAfter([] { return open(0); });
}

// The kernel reports once that a link went down. A release ends a read that began after that.
TEST_F(BusTest, AReleaseEndsAReadThatBeganOnADeadLink) {
    openBoth();
    WaitingRead().returnsAfter([] { return system(cut); });
    WaitingRead().returnsAfter([] { return corvel_freeDLL(0); });
}

// Writes without pause may consume the report that a read waits for. A release still ends that
// read, whether the link is down or up again.
TEST_F(BusTest, AReleaseEndsReadsThatWritesWithoutPauseMet) {
    openBoth();
    const Repeated reader([] { return read(0, 20) == 0; });
    const Repeated writer([] { return write(0) >= 0; });
    for (int round = 0; round < 6 && !HasFailure(); ++round) {
        EXPECT_EQ(system(cut), 0);
        sleep_for(milliseconds(50));
        if (round % 2 == 0) system(bringUp);
        EXPECT_EQ(corvel_freeDLL(0), CORVEL_SUCCESS);
        EXPECT_EQ(open(0), CORVEL_SUCCESS);
        EXPECT_EQ(write(1), CORVEL_SUCCESS);
        const long before = reader.m_done;
        EXPECT_TRUE(eventually([&] { return reader.m_done >= before + 3; }));
    }
}

// The adapter is removed while all read and write; frames of another pair hold the number -1.
TEST_F(BusTest, ARemovedAdapterDeliversNoFrameOfAnotherInterface) {
    const char* const removal = getenv("CORVEL_TEST_REMOVE");
    if (removal == nullptr) GTEST_SKIP() << "nothing says how to remove can0";
    openBoth();
    std::atomic<long> own{0}, foreign{0};
    const Repeated reader([&] {
        int32_t number = 0;
        if (read(0, 20, &number) == 0) ++(number == -1 ? foreign : own);
        return true;
    });
    const Repeated writer([] { return write(0) == 0; }), other([] { return write(1) == 0; });
    EXPECT_TRUE(eventually([&] { return own > 20; }));
    EXPECT_EQ(system(removal), 0);
    sleep_for(milliseconds(1000));  // in which a frame of another interface could come
    EXPECT_EQ(write(0), CORVEL_NOT_WRITTEN);
    EXPECT_EQ(corvel_freeDLL(0), CORVEL_SUCCESS);
    EXPECT_EQ(open(0), CORVEL_NO_DEVICE);
    EXPECT_EQ(corvel_freeDLL(1), CORVEL_SUCCESS);  // its writes wait: it has no partner
    EXPECT_EQ(foreign, 0);
}
