// Records what the library asks of the system, line by line, and answers it. The test program
// defines the calls, so that its definitions override those of all libraries.
#ifndef CORVEL_TESTS_RECORDER_H
#define CORVEL_TESTS_RECORDER_H

#include <gtest/gtest.h>

#include <functional>
#include <list>
#include <string>
#include <vector>

#include "corvel/driverforsocketcan.h"

// The next call whose line contains `text` is not executed; it returns `result` and sets errno.
// With an action, that runs first, and the call is executed. A lock that the library holds then and
// the action needs throws std::system_error, instead of blocking for ever.
struct Answer {
    std::string text;
    int result;
    int error = 0;
    std::function<void()> action = nullptr;
};

// Each test has a system of its own, and must leave no descriptor open. Calls succeed unless an
// answer waits for them. The library must never lock a second mutex on one thread.
class RecorderTest : public testing::Test {
public:
    RecorderTest();
    ~RecorderTest() override;

    // Runs an action just before the next call whose line contains `text`.
    void during(const std::string& text, const std::function<void()>& action) {
        m_answers.push_back({text, 0, 0, action});
    }

    std::list<Answer> m_answers;  // each waits for the one before it
    std::vector<std::pair<unsigned, const char*>> m_links{
        {772, "lo"}, {280, "can1"}, {280, "can0"}};
    int m_firstSocket = 50;  // CAN sockets get the lowest free number from here on
    int m_boundTo = 0;       // the interface that the last bind named

private:
    const long m_descriptors;
};

// Makes the allocation after `after` more on this thread throw, or none if negative. Returns what
// was left of the previous order: negative if there was none, or it has been carried out.
long failAllocation(long after);

// What a call asked of the system and its result, each line after a line end: "NAME ARGUMENTS".
// Log records are "log LEVEL MESSAGE".
std::string callsOf(const std::function<int()>& call);

// Only its log records, frames, closed sockets and result, separated by "; ".
std::string outcome(const std::function<int()>& call);

// Shown as its size and hexadecimal digits, without the zeros at the end.
struct Bytes {
    const void* data;
    size_t size;
};
std::ostream& operator<<(std::ostream& out, const Bytes& bytes);

#endif
