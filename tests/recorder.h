// What the library asks of the system, recorded line by line and answered as told. The test
// program's own definitions of the calls come before those of any library.
#ifndef CORVEL_TESTS_RECORDER_H
#define CORVEL_TESTS_RECORDER_H

#include <gtest/gtest.h>

#include <functional>
#include <list>
#include <map>
#include <string>
#include <vector>

#include "allocations.h"
#include "corvel/driverforsocketcan.h"

// The system that the library meets during one test. Unless ordered otherwise, all succeeds.
struct System {
    // What the next call whose line holds the text gives, with this errno, instead of doing it.
    struct Order {
        std::string text;
        int result;
        int error = 0;
    };
    std::list<Order> orders;
    std::map<std::string, std::function<void()>> hooks;  // run in every such call, before all else
    std::vector<std::pair<unsigned, const char*>> links{{772, "lo"}, {280, "can1"}, {280, "can0"}};
    int nextSocket = 50;                // CAN sockets get these numbers, counting up
    int boundTo = 77;                   // the interface index that they say they are bound to
    std::list<std::string> frames;      // received on any of them
    std::map<const void*, char> locks;  // the library's, named in the order of their first use
};

// Every test has a system of its own, and ends with the descriptors that it began with.
class RecorderTest : public testing::Test {
protected:
    RecorderTest();
    ~RecorderTest() override;
    System m_system;
    const long m_descriptors;
};

// What a call did and its result, each line after a line end: "TAKEN/HELD NAME ARGUMENTS", with the
// letters of the locks that the library has taken for the call so far, and of those that it holds.
// Log records are "log LEVEL MESSAGE", frames their size and bytes without trailing zeros.
std::string during(const std::function<int()>& call);

// Only its log records, frames, closed sockets and result, without the locks.
std::string outcome(const std::function<int()>& call);

std::string hexadecimal(const void* data, size_t size);
std::string bytes(const std::string& hexadecimal, size_t size);

#endif
