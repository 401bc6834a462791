// Threads that meet: what waits is held up at a gate, and other threads get through, or do not.

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <future>
#include <thread>

#include "recorder.h"

class ThreadsTest : public RecorderTest {
protected:
    // Holds up every call whose line holds the text, until openGate().
    void hold(const char* text) {
        m_held = 0, m_gate = {};
        m_system.hooks[text] = [this, opened = m_gate.get_future().share()] {
            ++m_held, opened.wait();
        };
    }
    void openGate() { m_gate.set_value(); }
    // Waits until one call is held up, and sees that no other follows.
    void expectOneHeld() const {
        const auto pause = [] { std::this_thread::sleep_for(std::chrono::milliseconds(5)); };
        for (int i = 0; i < 1000 && m_held == 0; ++i) pause();
        for (int i = 0; i < 20; ++i) pause();
        EXPECT_EQ(m_held, 1);
    }
    static int init(int index) { return corvel_initDLL(index, 500, false, 2000); }
    static int write(int index) {
        const _corvel_CanMsg msg{0x123, {}, 0, {}, 0, 0};
        return corvel_writeMessage(index, &msg);
    }
    static int read(int index) {
        _corvel_CanMsg msg;
        return corvel_readMessage(index, &msg, 0);
    }
    static auto start(int (*call)(int), int index) {
        return std::async(std::launch::async, call, index);
    }
    std::promise<void> m_gate;
    std::atomic<int> m_held{0};
};

TEST_F(ThreadsTest, ACallThatWaitsHoldsUpOnlyItsLikeOnItsDevice) {
    ASSERT_EQ(init(0) + init(1), 0);
    for (const auto& [text, call, other] :
         {std::tuple("select 50", &read, &write), std::tuple("write 50", &write, &read)}) {
        hold(text);
        auto first = start(*call, 0), second = start(*call, 0);
        expectOneHeld();
        auto result = start(*other, 0);
        EXPECT_EQ(result.wait_for(std::chrono::seconds(5)), std::future_status::ready);
        EXPECT_EQ(write(1) + read(1), 2);
        EXPECT_EQ(init(0), 1);
        EXPECT_EQ(corvel_freeDLL(1) + init(1), 0);
        openGate();
        EXPECT_EQ(first.get(), second.get());
    }
}

TEST_F(ThreadsTest, ADeviceWhoseCommandsRunHoldsUpNoOther) {
    ASSERT_EQ(init(0), 0);
    for (const auto& call : {&init, &corvel_freeDLL}) {
        hold("system sudo ip link set can1 ");
        auto waiting = start(*call, 1);
        expectOneHeld();
        EXPECT_EQ(write(0) + read(0), 2);
        EXPECT_EQ(write(1), 1) << "not registered yet, or no longer";
        EXPECT_EQ(corvel_freeDLL(0) + init(0), 0);
        openGate();
        EXPECT_EQ(waiting.get(), 0);
    }
}

// With descriptors to spare, and with none or one.
TEST_F(ThreadsTest, AReleasedNumberStaysTakenUntilTheCallsThatItMetAreOver) {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    const int lowest = dup(2);
    close(lowest);
    for (const auto& [spare, taken] :
         {std::pair(1000, FD_CLOEXEC), std::pair(0, -1), std::pair(1, -1)}) {
        m_system.nextSocket = 50;
        ASSERT_EQ(init(0), 0);
        hold("select 50");
        auto reading = start(read, 0);
        expectOneHeld();
        const rlimit few{static_cast<rlim_t>(lowest + spare), limit.rlim_max};
        setrlimit(RLIMIT_NOFILE, &few);
        EXPECT_EQ(corvel_freeDLL(0), 0);
        setrlimit(RLIMIT_NOFILE, &limit);
        EXPECT_EQ(fcntl(50, F_GETFD), taken);
        EXPECT_LT(::write(50, "", 1), 0);
        openGate();
        EXPECT_EQ(reading.get(), 2);
        EXPECT_EQ(fcntl(50, F_GETFD), -1);
    }
}
