// What an application sees of can0 and can1 on one bus, be it simulated, the kernel's virtual one
// or a real one. CORVEL_TEST_REMOVE is a command that removes can0; CORVEL_CLASSIC says that the
// controllers know no CAN FD, and hold four frames.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <future>
#include <thread>
#include <utility>

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

static const char* const cut = "sudo ip link set can0 down";
static const char* const bringUp =
    "sudo ip link set can0 up type can bitrate 500000 sample-point 0.875 restart-ms 0";

// Makes a call in the background, again and again while it lives, with pauses where it fails. A
// signal ends the last one, which may be left waiting.
class Repeated {
public:
    explicit Repeated(const std::function<bool()>& call)
        : m_thread([=] {
              for (; !m_stop; ++m_done) {
                  if (!call()) sleep_for(std::chrono::microseconds(200));
              }
              m_ended = true;
          }) {}
    ~Repeated() {
        struct sigaction action{};
        action.sa_handler = [](int) {};
        sigaction(SIGUSR1, &action, nullptr);
        m_stop = true;
        while (!m_ended) {
            sleep_for(milliseconds(10));
            pthread_kill(m_thread.native_handle(), SIGUSR1);
        }
        m_thread.join();
    }
    std::atomic<long> m_done{0};

private:
    std::atomic<bool> m_stop{false}, m_ended{false};
    std::thread m_thread;
};

// True when the thread is inside this system call.
static bool isInside(pid_t thread, long call) {
    std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/syscall");
    long current = -1;
    return file >> current && current == call;
}

// Waits for something at most some seconds; false when it did not come.
static bool eventually(const std::function<bool()>& happened) {
    const auto end = Clock::now() + std::chrono::seconds(10);
    while (!happened() && Clock::now() < end) sleep_for(milliseconds(1));
    return happened();
}

// A read of can0 that waits in the background.
class WaitingRead {
public:
    WaitingRead() {
        EXPECT_TRUE(eventually([this] {  // it waits for a frame, or for its turn
            return isInside(m_thread, SYS_pselect6) || isInside(m_thread, SYS_futex);
        }));
    }
    void returnsAfter(const char* cause, const std::function<int()>& action) {
        const auto start = Clock::now();
        EXPECT_EQ(action(), 0) << cause;
        ASSERT_EQ(m_end.wait_for(std::chrono::seconds(10)), std::future_status::ready) << cause;
        const auto [status, when] = m_end.get();
        const std::chrono::duration<double, std::milli> time = when - start;
        if (time.count() > 0) {  // or it had returned before
            printf("a read that waited returned within %.0f ms: %s\n", time.count(), cause);
        }
        EXPECT_EQ(status, CORVEL_NO_FRAME);
    }

private:
    std::atomic<pid_t> m_thread{0};
    std::future<std::pair<int32_t, Clock::time_point>> m_end =
        std::async(std::launch::async, [this] {
            m_thread = gettid();
            const int32_t status = read(0, 20000);
            return std::pair{status, Clock::now()};
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
        if (sent == total || sent == taken + ahead || write(0, sent) != CORVEL_SUCCESS)
            return false;
        ++sent;
        return true;
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
    first.returnsAfter("released", [] { return corvel_freeDLL(0); });
    second.returnsAfter("released while it waited its turn", [] { return open(0); });
}

// A link that goes down by other hands is reported once; a release ends what waits nevertheless.
TEST_F(BusTest, ACutLinkEndsOneReadAndAReleaseTheNext) {
    openBoth();
    WaitingRead first;
    first.returnsAfter("link taken down", [] { return system(cut); });
    const auto start = Clock::now();
    EXPECT_EQ(read(0, 300), CORVEL_NO_FRAME);
    EXPECT_GE(Clock::now() - start, milliseconds(300)) << "told a second time";
    WaitingRead().returnsAfter("released, link down already", [] { return corvel_freeDLL(0); });
}

// Writes without pause may take from a read what tells it that the link is down; a release does not
// leave such a read behind, be the link down still or up again.
TEST_F(BusTest, AReleaseEndsReadsThatWritesWithoutPauseMet) {
    openBoth();
    const Repeated reader([] { return read(0, 20) == 0; });
    const Repeated writer([] {
        write(0);
        return true;
    });
    for (int round = 0; round < 6 && !HasFailure(); ++round) {
        EXPECT_EQ(system(cut), 0);
        sleep_for(milliseconds(50));
        if (round % 2 == 0) system(bringUp);
        EXPECT_EQ(corvel_freeDLL(0), CORVEL_SUCCESS);
        EXPECT_EQ(open(0), CORVEL_SUCCESS);
        EXPECT_EQ(write(1), CORVEL_SUCCESS);
        const long before = reader.m_done;
        EXPECT_TRUE(eventually([&] { return reader.m_done >= before + 3; }))
            << "a read outlasts the release";
    }
}

// The kernel remembers that a link is down.
using KernelTest = BusTest;

TEST_F(KernelTest, OneThreadAloneIsToldOfADeadLinkAndFindsNothingOfItLater) {
    openBoth();
    EXPECT_EQ(system(cut), 0);
    EXPECT_EQ(write(0), CORVEL_NOT_WRITTEN);
    const auto start = Clock::now();
    EXPECT_EQ(read(0, 300), CORVEL_NO_FRAME);
    EXPECT_GE(Clock::now() - start, milliseconds(300)) << "the write was told already";
    EXPECT_EQ(write(0), CORVEL_NOT_WRITTEN);
    EXPECT_EQ(system(bringUp), 0);
    EXPECT_TRUE(eventually([] { return write(0) == CORVEL_SUCCESS; }));
    EXPECT_EQ(write(1, 7), CORVEL_SUCCESS);
    int32_t number = 0;
    EXPECT_EQ(read(0, 1000, &number), CORVEL_SUCCESS);
    EXPECT_EQ(number, 7);
}

// Removed under reads and writes of all, while the frames of another pair hold the number -1.
TEST_F(KernelTest, ARemovedAdapterDeliversNoFrameOfAnotherInterface) {
    const char* const removal = getenv("CORVEL_TEST_REMOVE");
    if (removal == nullptr) GTEST_SKIP() << "nothing says how to remove can0";
    openBoth();
    std::atomic<long> own{0}, foreign{0};
    {
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
    }
    EXPECT_EQ(foreign, 0);
}
