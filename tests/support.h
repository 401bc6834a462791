// What the tests share: the recorded log, counts of calls, and a machine with simulated adapters.
#ifndef CORVEL_TESTS_SUPPORT_H
#define CORVEL_TESTS_SUPPORT_H

#include <gtest/gtest.h>
#include <simcan.h>

#include <array>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "driverforsocketcan.h"

// ThreadSanitizer brings an operator new that no program can replace.
#ifdef __has_feature
#if __has_feature(thread_sanitizer)
#define THREAD_SANITIZER
#endif
#endif

using Log = std::vector<std::pair<int, std::string>>;  // level and message

// What was logged, and which commands `sudo` was given, since the last such call.
Log takeLog();
std::vector<std::string> takeCommands();

// Makes `sudo` fail on commands that hold a word: "WORD exit N" or "WORD kill N".
struct FailingSudo {
    explicit FailingSudo(const char* order) { setenv("SIMCAN_SUDO_FAIL", order, 1); }
    ~FailingSudo() { unsetenv("SIMCAN_SUDO_FAIL"); }
};

// Calls by this process since it started.
struct Counts {
    long select, read, write, allocations;
};
Counts counts();

// Makes the allocation after `after` more on this thread throw; then tells whether it came to that
// and ends it.
void failAllocation(long after);
bool allocationFailed();

// Makes nl_socket_alloc return null while set.
extern bool noNetlinkSocket;

int openDescriptors();

// Two connected sockets that behave as CAN sockets do: one datagram is one frame.
struct SocketPair {
    SocketPair();
    ~SocketPair();
    corvel::IInterface::DeviceDesc desc() const;  // of a device whose socket is the near end
    int near, far;
};

// A record between guard bytes, filled with a pattern.
struct GuardedMsg {
    std::array<uint8_t, 64> before;
    _corvel_CanMsg msg;
    std::array<uint8_t, 64> after;
    GuardedMsg() { memset(static_cast<void*>(this), 0xA5, sizeof *this); }
    bool operator==(const GuardedMsg& other) const { return !memcmp(this, &other, sizeof other); }
};

// Every test starts with an empty log and ends with the descriptors that it began with.
class CorvelTest : public testing::Test {
protected:
    CorvelTest() { takeLog(), takeCommands(); }
    void TearDown() override { EXPECT_EQ(openDescriptors(), m_descriptors) << "leaked"; }

private:
    const int m_descriptors = openDescriptors();
};

#endif
