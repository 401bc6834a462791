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
    std::list<Order> orders;                              // each waits for the one before it
    std::function<void(const std::string& line)> onCall;  // is run in every call, before all else
    std::vector<std::pair<unsigned, const char*>> links{{772, "lo"}, {280, "can1"}, {280, "can0"}};
    int nextSocket = 50;  // CAN sockets get these numbers, counting up; what is written comes back
    int boundTo = 77;     // the interface index that they say they are bound to
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
// Log records are "log LEVEL MESSAGE".
std::string during(const std::function<int()>& call);

// Only its log records, frames, closed sockets and result, without the locks.
std::string outcome(const std::function<int()>& call);

// Bytes, given as hexadecimal text and followed by zeros up to the size.
std::string bytes(const std::string& hexadecimal, size_t size);

// Shown as its size and bytes, in the same way.
struct Bytes {
    const void* data;
    size_t size;
};
std::ostream& operator<<(std::ostream& out, const Bytes& bytes);

#endif
