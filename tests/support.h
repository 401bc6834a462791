// What the unit tests share: the recorded log, counts of calls, a machine with simulated adapters.
#ifndef CORVEL_TESTS_SUPPORT_H
#define CORVEL_TESTS_SUPPORT_H

#include <gtest/gtest.h>
#include <simcan.h>

#include <string>
#include <utility>
#include <vector>

#include "counts.h"
#include "driverforsocketcan.h"

using Log = std::vector<std::pair<int, std::string>>;  // level and message
using Lines = std::vector<std::string>;

// What was logged, and which commands `sudo` was given, since the last such call.
Log takeLog();
Lines takeCommands();

// Makes `sudo` fail on commands that hold a word: "WORD exit N" or "WORD kill N".
struct FailingSudo {
    explicit FailingSudo(const char* order) { setenv("SIMCAN_SUDO_FAIL", order, 1); }
    ~FailingSudo() { unsetenv("SIMCAN_SUDO_FAIL"); }
};

int openDescriptors();

// Every test starts with an empty log and ends with the descriptors that it began with.
class CorvelTest : public testing::Test {
protected:
    CorvelTest() { takeLog(), takeCommands(); }
    void TearDown() override { EXPECT_EQ(openDescriptors(), m_descriptors) << "leaked"; }

private:
    const int m_descriptors = openDescriptors();
};

#endif
