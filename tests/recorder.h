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

#include "corvel/driverforsocketcan.h"

// What the next call whose line holds the text gives, with this errno, instead of doing anything.
// An action comes before the call, which then goes on as usual.
struct Answer {
    std::string text;
    int result;
    int error = 0;
    std::function<void()> action = nullptr;
};

// Every test has a system of its own, and ends with the descriptors that it began with. Calls
// succeed unless an answer waits for them.
class RecorderTest : public testing::Test {
public:
    RecorderTest();
    ~RecorderTest() override;

    std::list<Answer> m_answers;  // each waits for the one before it
    std::vector<std::pair<unsigned, const char*>> m_links{
        {772, "lo"}, {280, "can1"}, {280, "can0"}};
    bool m_linkIsUp = true;
    int m_firstSocket = 50;  // CAN sockets get the lowest number from here on that is free
    std::map<const void*, char> m_locks;  // the library's, named in the order of their first use

private:
    const long m_descriptors;
};

// Makes the allocation after `after` more on this thread throw, or none when negative. Gives how
// many were left of an earlier order: below 0 when there was none, or it has been carried out.
long failAllocation(long after);

// What a call asked of the system and its result, each line after a line end: "NAME ARGUMENTS".
// Log records are "log LEVEL MESSAGE".
std::string callsOf(const std::function<int()>& call);

// Only its log records, frames, closed sockets and result, separated by "; ".
std::string outcome(const std::function<int()>& call);

// How the library took locks for a call: "(a" takes the one of this letter, ")" gives it back, and
// a dot stands for all that was asked of the system in between.
std::string locksOf(const std::function<int()>& call);

// Bytes, given as hexadecimal text and followed by zeros up to the size.
std::string bytes(const std::string& hexadecimal, size_t size);

// Shown as its size and bytes, in the same way.
struct Bytes {
    const void* data;
    size_t size;
};
std::ostream& operator<<(std::ostream& out, const Bytes& bytes);

#endif
