#include <csignal>

#include "support.h"

class ApiTest : public CorvelTest {
protected:
    void TearDown() override {
        corvel_freeDLL(0), corvel_freeDLL(1);
        CorvelTest::TearDown();
    }
    _corvel_CanMsg m_msg{};
};

static const Log opened{
    {2, "sudo ip link set can0 up type can bitrate 500000 sample-point 0.875 restart-ms 0"},
    {2, "Successfully opened Corvel."}};
static const Log released{{2, "sudo ip link set can0 down"}, {2, "Free Device."}};

TEST_F(ApiTest, UnknownIndexes) {
    EXPECT_EQ(corvel_writeMessage(0, nullptr), 1);
    EXPECT_EQ(corvel_readMessage(0, nullptr, 60000), 1);
    EXPECT_EQ(corvel_freeDLL(0), 1);
    EXPECT_EQ(takeLog(), (Log{{3, "Write failed,No such device"},
                              {3, "Read failed,No such device"},
                              {3, "Free failed,No such device"}}));
    EXPECT_EQ(corvel_initDLL(7, 500, false, 2000), 1);
    EXPECT_EQ(corvel_initDLL(-1, 500, false, 2000), 1);
    simcan_failNext(SIMCAN_CACHE, 5);
    EXPECT_EQ(corvel_initDLL(0, 500, false, 2000), 1);
    EXPECT_EQ(takeLog(), (Log{{4, "Open Corvel failed: device does not exist. devIndex:7"},
                              {4, "Open Corvel failed: device does not exist. devIndex:-1"},
                              {4, "could not access netlink device list, error code:-5"},
                              {4, "Scan failed."}}));
    EXPECT_TRUE(takeCommands().empty());
}

TEST_F(ApiTest, OneDeviceFromInitialisationToRelease) {
    for (int round = 0; round < 2; ++round) {
        ASSERT_EQ(corvel_initDLL(0, 500, false, 2000), 0);
        EXPECT_EQ(takeLog(), opened);
        EXPECT_EQ(corvel_initDLL(0, 250, true, 2000), 1);
        EXPECT_EQ(takeLog(), (Log{{4, "Failed open Corvel.The device is already open."}}));
        EXPECT_EQ(takeCommands().size(), 2u);
        EXPECT_EQ(corvel_writeMessage(0, &m_msg), 0);
        EXPECT_EQ(corvel_readMessage(0, &m_msg, 0), 2);
        EXPECT_EQ(takeLog(), Log{});
        EXPECT_EQ(corvel_writeMessage(0, nullptr), 3);
        EXPECT_EQ(corvel_readMessage(0, nullptr, 60000), 2);
        EXPECT_EQ(takeLog(),
                  (Log{{4, "Write failed,msg is null"}, {4, "Read failed,msg is null"}}));
        EXPECT_EQ(corvel_freeDLL(0), 0);
        EXPECT_EQ(takeLog(), released);
        EXPECT_EQ(corvel_freeDLL(0), 1);
        EXPECT_EQ(corvel_readMessage(0, &m_msg, 0), 1);
        takeLog(), takeCommands();
    }
}

TEST_F(ApiTest, AFailedOpenLeavesTheIndexFree) {
    {
        const FailingSudo sudo("up exit 1");
        EXPECT_EQ(corvel_initDLL(0, 500, false, 2000), 5);
    }
    EXPECT_EQ(takeLog(), (Log{opened[0],
                              {4, "Command returned non-zero exit code: 1"},
                              {4, "error execute system cmd, error:1"},
                              {4, "Open Corvel failed."}}));
    EXPECT_EQ(corvel_writeMessage(0, &m_msg), 1);
    signal(SIGCHLD, SIG_IGN);
    EXPECT_EQ(corvel_initDLL(0, 500, false, 2000), 5);
    signal(SIGCHLD, SIG_DFL);
    takeCommands();
    EXPECT_EQ(corvel_initDLL(0, 4294968, true, 0), 0);
    EXPECT_EQ(takeCommands()[0],
              "sudo ip link set can0 up type can bitrate 704 sample-point 0.75 dbitrate 0 "
              "sample-point 0.75 restart-ms 0 fd on")
        << "rates are multiplied modulo 2^32 and not examined";
}

TEST_F(ApiTest, AFrameCostsItsSystemCallsAndNoAllocation) {
    for (const bool canFd : {false, true}) {
        ASSERT_EQ(corvel_initDLL(0, 500, canFd, 2000), 0);
        ASSERT_EQ(corvel_initDLL(1, 500, canFd, 2000), 0);
        const Counts before = counts();
        for (int i = 0; i < 100; ++i) {
            ASSERT_EQ(corvel_writeMessage(0, &m_msg), 0);
            ASSERT_EQ(corvel_readMessage(1, &m_msg, 1000), 0);
        }
        const Counts after = counts();
        EXPECT_EQ(after.write - before.write, 100);
        EXPECT_EQ(after.select - before.select, 100);
        EXPECT_EQ(after.read - before.read, 100);
        EXPECT_EQ(after.allocations - before.allocations, 0);
        EXPECT_EQ(corvel_freeDLL(0), 0);
        EXPECT_EQ(corvel_freeDLL(1), 0);
    }
}

// Lets each allocation of a call fail in turn, until one call needs fewer. `check` runs after
// each.
template <typename Call, typename Check>
static void failEachAllocation(Call call, Check check) {
    int thrown = 0;
    for (long after = 0;; ++after) {
        failAllocation(after);
        try {
            call();
        } catch (const std::bad_alloc&) {
            ++thrown;
        }
        const bool failed = failAllocation(-1) < 0;
        check();
        if (!failed) break;
    }
    EXPECT_GT(thrown, 0);
    takeLog();
}

TEST_F(ApiTest, OutOfMemoryLosesAndLeaksNothing) {
#ifdef THREAD_SANITIZER
    GTEST_SKIP() << "allocations cannot be made to fail";
#endif
    const int closed = openDescriptors();
    int status = -1;
    failEachAllocation([&] { status = -1, status = corvel_initDLL(0, 500, true, 2000); },
                       [&] {
                           EXPECT_EQ(corvel_writeMessage(0, &m_msg), status == 0 ? 0 : 1);
                           EXPECT_EQ(corvel_freeDLL(0), status == 0 ? 0 : 1);
                           EXPECT_EQ(openDescriptors(), closed);
                       });
    EXPECT_EQ(corvel_initDLL(0, 500, true, 2000), 0);

    _corvel_CanMsg remote{};
    remote.remote = 1;
    failEachAllocation([&] { corvel_writeMessage(0, &remote); },
                       [&] { EXPECT_EQ(corvel_writeMessage(0, &m_msg), 0); });
    failEachAllocation([&] { corvel_readMessage(0, nullptr, 0); },
                       [&] { EXPECT_EQ(corvel_readMessage(0, &m_msg, 0), 2); });
    failEachAllocation([&] { corvel_freeDLL(0); },
                       [&] {
                           EXPECT_EQ(openDescriptors(), closed);
                           EXPECT_EQ(corvel_freeDLL(0), 1);
                           EXPECT_EQ(corvel_initDLL(0, 500, true, 2000), 0);
                       });
}
