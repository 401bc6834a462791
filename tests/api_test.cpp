// Everything that the exported functions do, in order and to the byte.

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstring>
#include <future>
#include <thread>

#include "recorder.h"

using ApiTest = RecorderTest;

static const auto init = +[] { return corvel_initDLL(0, 500, false, 2000); };
static const auto initCanFd = +[] { return corvel_initDLL(0, 500, true, 2000); };
static const auto initOther = +[] { return corvel_initDLL(1, 500, true, 2000); };
static const auto release = +[] { return corvel_freeDLL(0); };
static const auto isOpen = [](int fd) { return fcntl(fd, F_GETFD) >= 0; };
template <int32_t index>
static int sendOn() {
    const _corvel_CanMsg msg{0x123, {1, 2, 3}, 3, {}, 0, 0};
    return corvel_writeMessage(index, &msg);
}
static const auto send = sendOn<0>;
template <int32_t index, uint32_t timeout>
static int receive() {
    _corvel_CanMsg msg;
    return corvel_readMessage(index, &msg, timeout);
}
static const auto poll = receive<0, 0>;

static const std::string scanned = R"(
nl_socket_alloc
nl_connect 0
rtnl_link_alloc_cache 0
nl_cache_free
nl_close
nl_socket_free
)";
static const std::string up =
    "sudo ip link set can0 up type can bitrate 500000 sample-point 0.875 restart-ms 0";
static const std::string upCanFd =
    "sudo ip link set can0 up type can bitrate 500000 sample-point 0.75 dbitrate 2000000 "
    "sample-point 0.75 restart-ms 0 fd on";
static const std::string bound = R"(
socket PF_CAN SOCK_RAW CAN_RAW
ioctl 50 INDEX can0
bind 50 16:1D0000004D
)";
static const std::string registered = "log 2 Successfully opened Corvel.\n= 0\n";
static const std::string down = R"(log 2 sudo ip link set can0 down
system sudo ip link set can0 down
log 2 Free Device.
)";
static const std::string released = R"(
getsockname 50 16
setsockopt 50 FILTER 0:
bind 50 16:1D
bind 50 16:1D0000004D
close 50
)" + down + "= 0\n";

TEST_F(ApiTest, AClassicDeviceMakesTheseCallsAndNoOthers) {
    EXPECT_EQ(callsOf(init), scanned + "log 2 " + up + "\nsystem " + up +
                                 "\nsystem sudo ip link set can0 txqueuelen 2000" + bound +
                                 registered);
    EXPECT_EQ(fcntl(50, F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(fcntl(50, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(callsOf(init), "\nlog 4 Failed open Corvel.The device is already open.\n= 1\n");
    EXPECT_EQ(callsOf(send), "\nwrite 50 16:2301000003000000010203\n= 0\n");
    write(50, bytes("", 16).data(), 16);
    EXPECT_EQ(callsOf(receive<0, 1500>), "\nselect 50 1 500000\nread 50 72\n= 0\n");
    EXPECT_EQ(callsOf(release), released);
    EXPECT_EQ(callsOf(release), "\nlog 3 Free failed,No such device\n= 1\n");
    EXPECT_EQ(init(), 0) << "a released index is free";
}

TEST_F(ApiTest, ACanFdDeviceMakesTheseCallsAndNoOthers) {
    EXPECT_EQ(callsOf(initCanFd), scanned + "log 2 " + upCanFd + "\nsystem " + upCanFd +
                                      "\nsystem sudo ip link set can0 txqueuelen 10000" + bound +
                                      "setsockopt 50 FD_FRAMES 4:01\n" + registered);
    EXPECT_EQ(callsOf(send), "\nwrite 50 72:2301000003010000010203\n= 0\n");
    EXPECT_EQ(callsOf(poll), "\nselect 50 0 0\n= 2\n");
    m_answers = {{"system", 0x100}};
    EXPECT_EQ(callsOf(release), released) << "what the command achieves is not examined";
}

TEST_F(ApiTest, ScansAndCommandsBlockNoOtherDevice) {
    ASSERT_EQ(initOther(), CORVEL_SUCCESS);
    const auto sendOther = [] { EXPECT_EQ(sendOn<1>(), CORVEL_SUCCESS); };
    for (const char* const call : {"alloc_cache", "system", "system"}) during(call, sendOther);
    EXPECT_EQ(init(), CORVEL_SUCCESS);
    during("system", sendOther);
    EXPECT_EQ(release(), CORVEL_SUCCESS);
}

TEST_F(ApiTest, CallsReturnAtOnceWhileTheirDeviceIsReleased) {
    ASSERT_EQ(init(), CORVEL_SUCCESS);
    during("system", [] { EXPECT_EQ(send(), CORVEL_NO_DEVICE); });
    EXPECT_EQ(release(), CORVEL_SUCCESS);
}

// A device that is released while a read of it is in select.
class ReleaseTest : public RecorderTest {
protected:
    ReleaseTest() {
        ::close(m_free);
        EXPECT_EQ(init(), CORVEL_SUCCESS);
    }
    void releaseDuringSelect(const std::function<void()>& then = [] {}) {
        during("select", [=] {
            EXPECT_EQ(release(), CORVEL_SUCCESS);
            then();
        });
        EXPECT_EQ(poll(), CORVEL_NO_FRAME);
        EXPECT_FALSE(isOpen(50)) << "leaked";
    }
    const int m_free = dup(STDERR_FILENO);  // the lowest free number
};

TEST_F(ReleaseTest, TheNumberIsNotReusedBeforeTheReadReturns) {
    releaseDuringSelect([] { EXPECT_TRUE(isOpen(50)); });
}

TEST_F(ReleaseTest, NoProgramInheritsTheSocketOrItsNumber) {
    during("select", [this] {
        during("close", [this] { EXPECT_EQ(fcntl(m_free, F_GETFD), FD_CLOEXEC); });
        release();
        EXPECT_EQ(fcntl(50, F_GETFD), FD_CLOEXEC);
    });
    EXPECT_EQ(poll(), CORVEL_NO_FRAME);
}

TEST_F(ReleaseTest, AClosedStandardInputIsLeftClosed) {
    ::close(STDIN_FILENO);
    releaseDuringSelect([] { EXPECT_TRUE(isOpen(50)); });
    EXPECT_EQ(open("/dev/null", O_RDONLY | O_CLOEXEC), STDIN_FILENO);
}

// It may leave no room for the socket's new number, for another socket, or for the old number.
TEST_F(ReleaseTest, ALoweredLimitOfDescriptorsHarmsNobody) {
    rlimit usual;
    getrlimit(RLIMIT_NOFILE, &usual);
    for (const int limit : {m_free, m_free + 1, 50}) {
        const rlimit lowered{static_cast<rlim_t>(limit), usual.rlim_max};
        setrlimit(RLIMIT_NOFILE, &lowered);
        releaseDuringSelect([] { EXPECT_FALSE(isOpen(50)); });
        setrlimit(RLIMIT_NOFILE, &usual);
        EXPECT_EQ(init(), CORVEL_SUCCESS);
    }
}

TEST_F(ReleaseTest, ASocketWithoutAFilterIsNotBoundToAllInterfaces) {
    m_answers = {{"FILTER", -1, ENOMEM}};
    EXPECT_EQ(release(), CORVEL_SUCCESS);
    EXPECT_EQ(m_boundTo, 77);
}

TEST_F(ReleaseTest, ASocketOfARemovedAdapterOrOfAnotherKindIsOnlyClosed) {
    const std::string closed = "\ngetsockname 50 16\nclose 50\n" + down + "= 0\n";
    m_boundTo = 0;
    EXPECT_EQ(callsOf(release), closed);
    ASSERT_EQ(init(), CORVEL_SUCCESS);
    m_answers = {{"getsockname", -1, EBADF}};
    EXPECT_EQ(callsOf(release), closed);
}

TEST_F(ApiTest, ASocketIsMovedOffAClosedStandardStreamAndNotInherited) {
    for (const int stream : {STDIN_FILENO, STDERR_FILENO}) {
        const int kept = fcntl(stream, F_DUPFD_CLOEXEC, 40), moved = dup(kept);
        ::close(moved);
        ::close(stream);
        m_firstSocket = stream;
        EXPECT_EQ(init(), CORVEL_SUCCESS);
        EXPECT_FALSE(isOpen(stream));
        EXPECT_EQ(fcntl(moved, F_GETFD), FD_CLOEXEC);
        release();
        dup2(kept, stream);
        ::close(kept);
    }
}

TEST_F(ApiTest, UnknownIndexesAndNullRecordsAreRefused) {
    EXPECT_EQ(callsOf(send), "\nlog 3 Write failed,No such device\n= 1\n");
    EXPECT_EQ(callsOf(poll), "\nlog 3 Read failed,No such device\n= 1\n");
    const auto initLast = [] { return corvel_initDLL(-1, 4294968, true, 4294967); };
    m_links = {{772, "lo"}};
    EXPECT_EQ(outcome(initLast),
              "log 4 Open Corvel failed: device does not exist. devIndex:-1; = 1");
    m_links = {{280, "can4294967295"}};
    const std::string rates = "bitrate 704 sample-point 0.75 dbitrate 4294967000 ";
    EXPECT_NE(outcome(initLast).find(rates), std::string::npos) << "multiplied modulo 2^32";
    EXPECT_EQ(outcome([] { return corvel_writeMessage(-1, nullptr); }),
              "log 4 Write failed,msg is null; = 3");
    EXPECT_EQ(outcome([] { return corvel_readMessage(-1, nullptr, 60000); }),
              "log 4 Read failed,msg is null; = 2");
    EXPECT_EQ(corvel_freeDLL(-1), 0);
}

TEST_F(ApiTest, AFailedInitialisationSaysWhyAndLeavesNothing) {
    const std::string code = "; log 4 error execute system cmd, error:";
    const struct {
        Answer answer;
        std::string messages;
    } failures[] = {
        {{"system", 255 << 8}, "log 4 Command returned non-zero exit code: 255" + code + "255"},
        {{"system", 0x80 + 6}, "log 4 Command terminated by signal: 6" + code + "-1"},
        {{"system", 0x137F}, "log 4 Command did not exit normally.\\n" + code + "-1"},
        {{"system", -1, ECHILD},
         "log 4 system() failed, errno: 10 (No child processes)" + code + "-1"},
        {{"txqueuelen", 2}, "log 4 Command terminated by signal: 2" + code + "-1"},
        {{"PF_CAN", -1, EAFNOSUPPORT}, "log 4 error while opening socket"},
        {{"ioctl", -1, ENODEV}, "log 4 error reading index of can0: No such device; close 50"},
        {{"bind", -1, ENODEV}, "log 4 Error in socket bind; close 50"},
        {{"setsockopt", -1, ENOPROTOOPT}, "log 4 Error set CanFD; close 50"},
    };
    for (const auto& [answer, messages] : failures) {
        SCOPED_TRACE(messages);
        m_answers = {answer};
        EXPECT_EQ(outcome(initCanFd),
                  "log 2 " + upCanFd + "; " + messages + "; log 4 Open Corvel failed.; = 5");
        EXPECT_EQ(send(), CORVEL_NO_DEVICE) << "registered";
    }
}

TEST_F(ApiTest, AFailedScanSaysWhy) {
    const std::string unscanned = "log 4 could not access netlink device list, error code:";
    m_answers = {{"nl_socket_alloc", -1}, {"alloc_cache", -12}, {"nl_connect", -7}};
    EXPECT_EQ(outcome(init), unscanned + "-5; log 4 Scan failed.; = 1");
    EXPECT_EQ(outcome(init), unscanned + "-12; log 4 Scan failed.; = 1");
    EXPECT_EQ(init(), CORVEL_SUCCESS) << "nl_connect is not examined";
}

// A classic device 0 and a CAN FD device 1.
class FrameTest : public RecorderTest {
protected:
    FrameTest() {
        EXPECT_EQ(init(), CORVEL_SUCCESS);
        EXPECT_EQ(initOther(), CORVEL_SUCCESS);
    }

    template <int32_t index>
    static std::string sent(uint32_t id, uint8_t len, uint8_t remote = 0, uint8_t extended = 0) {
        const _corvel_CanMsg msg{
            id, {1, 2, 3, 4, 5, 6, 7, 8}, len, {9, 9, 9, 9, 9, 9, 9}, remote, extended};
        return outcome([&] { return corvel_writeMessage(index, &msg); });
    }

    // The outcome, and the bytes of a record that were all A5. It is the same in either mode.
    static std::string received(size_t size, const std::string& frame) {
        std::string results[2];
        for (const int32_t index : {0, 1}) {
            write(50 + index, bytes(frame, size).data(), size);
            _corvel_CanMsg msg;
            memset(&msg, 0xA5, sizeof msg);
            results[index] = outcome([&] { return corvel_readMessage(index, &msg, 9); });
            results[index] += ' ' + testing::PrintToString(Bytes{&msg, sizeof msg});
        }
        EXPECT_EQ(results[0], results[1]);
        return results[0];
    }
};

TEST_F(FrameTest, AClassicDeviceSendsClassicFrames) {
    EXPECT_EQ(sent<0>(0x123, 8), "write 50 16:23010000080000000102030405060708; = 0");
    EXPECT_EQ(sent<0>(0x123, 9), "write 50 16:23010000080000000102030405060708; = 0");
    EXPECT_EQ(sent<0>(1, 0), "write 50 16:01; = 0");
    EXPECT_EQ(sent<0>(0x1ABCDE, 1, 0, 1), "write 50 16:DEBC1A800100000001; = 0");
    EXPECT_EQ(sent<0>(0xE0000123, 1, 0, 0x80), "write 50 16:230100E00100000001; = 0");
    EXPECT_EQ(sent<0>(0x123, 2, 1), "write 50 16:23010040020000000102; = 0");
    EXPECT_EQ(sent<0>(0x123, 1, 2, 2), "write 50 16:230100C00100000001; = 0");
}

TEST_F(FrameTest, ACanFdDeviceSendsCanFdFramesWithBitRateSwitch) {
    EXPECT_EQ(sent<1>(0x123, 8), "write 51 72:23010000080100000102030405060708; = 0");
    EXPECT_EQ(sent<1>(1, 0), "write 51 72:010000000001; = 0");
    EXPECT_EQ(sent<1>(0x1ABCDE, 1, 0, 1), "write 51 72:DEBC1A800101000001; = 0");
    EXPECT_EQ(sent<1>(0xE0000123, 1, 0, 0x80), "write 51 72:230100E00101000001; = 0");
}

TEST_F(FrameTest, ACanFdDeviceRefusesRemoteAndLongFrames) {
    EXPECT_EQ(sent<1>(0x123, 2, 1), "log 4 CAN FD does not support remote frames; = 3");
    EXPECT_EQ(sent<1>(0x123, 9, 2, 2), "log 4 CAN FD does not support remote frames; = 3");
    EXPECT_EQ(sent<1>(0x123, 9), "log 4 CAN FD frame refused, len above 8:9; = 3");
}

// In the order of the record: identifier, payload, length, reserved, remote, extended, padding.
TEST_F(FrameTest, AFrameFillsOnlyItsFieldsOfTheRecord) {
    const std::string r = "A5A5A5A5A5A5A5", p = "A5A5", ok = "= 0 24:";
    const std::string three = ok +
                              "23010000"
                              "010203A5A5A5A5A5"
                              "03" +
                              r + "0000" + p;
    EXPECT_EQ(received(16, "2301000003000000010203040506"), three);
    EXPECT_EQ(received(72, "2301000003FF0000010203040506"), three);
    EXPECT_EQ(received(72, "FF07008008000000010203040506070809"), ok +
                                                                      "FF070080"
                                                                      "0102030405060708"
                                                                      "08" +
                                                                      r + "0001" + p);
    EXPECT_EQ(received(16, "FF07004002"), ok +
                                              "FF070040"
                                              "0000A5A5A5A5A5A5"
                                              "02" +
                                              r + "0100" + p);
    EXPECT_EQ(received(16, "DEBC1AC0"), ok +
                                            "DEBC1AC0"
                                            "A5A5A5A5A5A5A5A5"
                                            "00" +
                                            r + "0101" + p);
    EXPECT_EQ(received(16, "80000020090000000102030405060708"), ok +
                                                                    "80000020"
                                                                    "0102030405060708"
                                                                    "08" +
                                                                    r + "0000" + p);
}

TEST_F(FrameTest, AFrameThatDoesNotFitIsDropped) {
    const std::string dropped = "; = 2 24:A5A5A5A5A5A5A5A5A5A5A5A5A5A5A5A5A5A5A5A5A5A5A5A5";
    EXPECT_EQ(received(72, "2301000009"), "log 4 CAN FD frame dropped, len above 8:9" + dropped);
    EXPECT_EQ(received(15, "2301"), "log 4 invalid CAN frame size: 15" + dropped);
    EXPECT_EQ(received(71, "2301"), "log 4 invalid CAN frame size: 71" + dropped);
}

TEST_F(ApiTest, AFrameThatIsNotWrittenWholeGivesStatus3) {
    ASSERT_EQ(init(), 0);
    m_answers = {{"write 50", -1, 105}, {"write 50", 8, 28}};
    const std::string write = "write 50 16:2301000003000000010203; log 4 write error:";
    EXPECT_EQ(outcome(send), write + "No buffer space available(errno=105); = 3");
    EXPECT_EQ(outcome(send), write + "No space left on device(errno=28); = 3");
}

TEST_F(ApiTest, AReadThatFailsGivesStatus2) {
    ASSERT_EQ(init(), 0);
    m_answers = {
        {"select 50", -1, 4}, {"select 50", 1}, {"read", -1, 100}, {"select 50", 1}, {"read", 0}};
    EXPECT_EQ(outcome(poll), "log 4 select() error: Interrupted system call; = 2");
    EXPECT_EQ(outcome(poll), "log 4 read() error: Network is down; = 2");
    EXPECT_EQ(outcome(poll), "log 4 invalid CAN frame size: 0; = 2");
}

static const rlimit enough{1100, 1100};

TEST_F(ApiTest, TimeOutsAreExactOnDescriptorsBelowAndAbove1024) {
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &enough), 0);
    m_firstSocket = 1023;
    ASSERT_EQ(init(), 0);
    ASSERT_EQ(initOther(), 0);
    for (const int fd : {1023, 1024}) write(fd, bytes("", 16).data(), 16);
    EXPECT_EQ(callsOf(receive<0, 4294967295>), "\nselect 1023 4294967 295000\nread 1023 72\n= 0\n");
    EXPECT_EQ(callsOf(receive<1, 4294967295>),
              "\nppoll 1 1024 1 4294967 295000000\nread 1024 72\n= 0\n");
    EXPECT_EQ(callsOf(receive<1, 0>), "\nppoll 1 1024 1 0 0\n= 2\n");
    m_answers = {{"ppoll", -1, 4}};
    EXPECT_EQ(outcome(receive<1, 0>), "log 4 select() error: Interrupted system call; = 2");
}

TEST_F(ApiTest, TheEndOfAProcessWaitsForNoLockAndClosesNoDevice) {
    const auto end = [&] {
        initOther();
        std::promise<void> logging;
        const auto block = [&] {
            logging.set_value();
            pause();
        };
        m_answers = {{"log 3", 0, 0, block}};
        std::thread(release).detach();
        logging.get_future().wait();
        alarm(10);
        exit(0);
    };
    EXPECT_EXIT(end(), testing::ExitedWithCode(0), "");
}

// Lets each allocation of a call fail in turn, until one call needs fewer; `check` runs after each.
static void failEachAllocation(const std::function<void()>& call,
                               const std::function<void()>& check) {
    bool failed = true;
    long after = 0;
    for (; failed; ++after) {
        failAllocation(after);
        try {
            call();
        } catch (const std::bad_alloc&) {
        }
        failed = failAllocation(-1) < 0;
        check();
    }
    EXPECT_GT(after, 1) << "no allocation failed";
}

TEST_F(ApiTest, OutOfMemoryLosesAndLeaksNothing) {
    failEachAllocation(init, [&] {
        EXPECT_EQ(send() == 0, isOpen(50)) << "a device is registered or closed";
        release();
    });
    ASSERT_EQ(init(), 0);
    failAllocation(0);
    EXPECT_EQ(send(), 0);
    EXPECT_EQ(poll(), 2);
    EXPECT_EQ(failAllocation(-1), 0) << "a frame costs no allocation";
    failEachAllocation([] { corvel_readMessage(0, nullptr, 0); }, [] { EXPECT_EQ(poll(), 2); });
    failEachAllocation(release, [&] {
        EXPECT_FALSE(isOpen(50));
        EXPECT_EQ(release(), 1);
        EXPECT_EQ(init(), 0);
    });
}
