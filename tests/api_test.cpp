// Everything that the exported functions do, in order and to the byte.

#include <fcntl.h>
#include <linux/can.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstring>

#include "recorder.h"

using ApiTest = RecorderTest;

static const auto init = +[] { return corvel_initDLL(0, 500, false, 2000); };
static const auto initCanFd = +[] { return corvel_initDLL(0, 500, true, 2000); };
static const auto initOther = +[] { return corvel_initDLL(1, 500, true, 2000); };
static const auto release = +[] { return corvel_freeDLL(0); };
static const auto isOpen = [](int fd) { return fcntl(fd, F_GETFD) >= 0; };
static const can_frame empty{};
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
    write(50, &empty, sizeof empty);
    EXPECT_EQ(callsOf(receive<0, 1500>), "\nselect 50 1 500000\nread 50 72\n= 0\n");
    EXPECT_EQ(callsOf(release), released);
    EXPECT_EQ(callsOf(release), "\nlog 3 Free failed,No such device\n= 1\n");
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

TEST_F(ApiTest, ScansAndCommandsBlockNoCall) {
    ASSERT_EQ(initOther(), CORVEL_SUCCESS);
    const auto sendBoth = [] {
        EXPECT_EQ(send(), CORVEL_NO_DEVICE);
        EXPECT_EQ(sendOn<1>(), CORVEL_SUCCESS);
    };
    for (const char* const call : {"alloc_cache", "system", "system"}) during(call, sendBoth);
    EXPECT_EQ(init(), CORVEL_SUCCESS);
    during("system", sendBoth);
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
        const auto releaseThen = [=] {
            EXPECT_EQ(release(), CORVEL_SUCCESS);
            then();
        };
        m_answers.push_front({"select", 0, 0, releaseThen});
        EXPECT_EQ(poll(), CORVEL_NO_FRAME);
        EXPECT_FALSE(isOpen(50)) << "leaked";
    }
    const int m_free = dup(STDERR_FILENO);  // the lowest free number
};

TEST_F(ReleaseTest, TheNumberIsNotReusedBeforeTheReadReturns) {
    releaseDuringSelect([] { EXPECT_TRUE(isOpen(50)); });
}

TEST_F(ReleaseTest, NoProgramInheritsTheSocketOrItsNumber) {
    during("close", [this] { EXPECT_EQ(fcntl(m_free, F_GETFD), FD_CLOEXEC); });
    releaseDuringSelect([] { EXPECT_EQ(fcntl(50, F_GETFD), FD_CLOEXEC); });
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

TEST_F(ApiTest, UnknownIndexesAreRefused) {
    EXPECT_EQ(callsOf(send), "\nlog 3 Write failed,No such device\n= 1\n");
    EXPECT_EQ(callsOf(poll), "\nlog 3 Read failed,No such device\n= 1\n");
    EXPECT_EQ(outcome([] { return corvel_initDLL(-1, 1, true, 1); }),
              "log 4 Open Corvel failed: device does not exist. devIndex:-1; = 1");
}

TEST_F(ApiTest, IndexesAndBitRatesAreUnsignedAndNullRecordsAreRefused) {
    m_links = {{772, "lo"}, {280, "can4294967295"}};
    const std::string rates = "bitrate 704 sample-point 0.75 dbitrate 4294967000 ";
    const auto opened = outcome([] { return corvel_initDLL(-1, 4294968, true, 4294967); });
    EXPECT_NE(opened.find(rates), std::string::npos) << "multiplied modulo 2^32";
    EXPECT_EQ(outcome([] { return corvel_writeMessage(-1, nullptr); }),
              "log 4 Write failed,msg is null; = 3");
    EXPECT_EQ(outcome([] { return corvel_readMessage(-1, nullptr, 60000); }),
              "log 4 Read failed,msg is null; = 2");
    EXPECT_EQ(corvel_freeDLL(-1), 0);
}

TEST_F(ApiTest, AFailedInitialisationSaysWhyAndLeavesNothing) {
    const std::string code = "; log 4 error execute system cmd, error:";
    const std::pair<Answer, std::string> failures[] = {
        {{"system", 255 << 8}, "log 4 Command returned non-zero exit code: 255" + code + "255"},
        {{"system", 0x137F}, "log 4 Command did not exit normally.\n" + code + "-1"},
        {{"system", -1, ECHILD},
         "log 4 system() failed, errno: 10 (No child processes)" + code + "-1"},
        {{"txqueuelen", 0x80 + 6}, "log 4 Command terminated by signal: 6" + code + "-1"},
        {{"PF_CAN", -1, EAFNOSUPPORT}, "log 4 error while opening socket"},
        {{"ioctl", -1, ENODEV}, "log 4 error reading index of can0: No such device; close 50"},
        {{"bind", -1, ENODEV}, "log 4 Error in socket bind; close 50"},
        {{"setsockopt", -1, ENOPROTOOPT}, "log 4 Error set CanFD; close 50"},
    };
    for (const auto& [answer, messages] : failures) {
        m_answers = {answer};
        EXPECT_EQ(outcome(initCanFd),
                  "log 2 " + upCanFd + "; " + messages + "; log 4 Open Corvel failed.; = 5");
        EXPECT_EQ(send(), CORVEL_NO_DEVICE) << "registered: " << messages;
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

    // The outcome, and the bytes of a record that were all A5. It is the same in either mode. A
    // classic frame has the layout of the first 16 bytes of a CAN FD frame.
    static std::string received(size_t size, uint32_t id, uint8_t len) {
        const canfd_frame frame{id, len, 0xFF, 0, 0, {1, 2, 3, 4, 5, 6, 7, 8, 9}};
        std::string results[2];
        for (const int32_t index : {0, 1}) {
            write(50 + index, &frame, size);
            _corvel_CanMsg msg;
            memset(&msg, 0xA5, sizeof msg);
            results[index] = outcome([&] { return corvel_readMessage(index, &msg, 9); });
            results[index] += ' ' + testing::PrintToString(Bytes{&msg, sizeof msg});
        }
        EXPECT_EQ(results[0], results[1]);
        return results[0];
    }

    // The same of a frame that fills these fields of the record, and only them.
    static std::string filled(uint32_t id, uint8_t len, uint8_t remote, uint8_t extended) {
        _corvel_CanMsg msg;
        memset(&msg, 0xA5, sizeof msg);
        msg.id = id;
        memcpy(msg.data, "\1\2\3\4\5\6\7\10", len);
        msg.len = len;
        msg.remote = remote;
        msg.extended = extended;
        return "= 0 " + testing::PrintToString(Bytes{&msg, sizeof msg});
    }
};

TEST_F(FrameTest, AClassicDeviceSendsClassicFrames) {
    EXPECT_EQ(sent<0>(0x123, 9), "write 50 16:23010000080000000102030405060708; = 0");
    EXPECT_EQ(sent<0>(1, 0), "write 50 16:01; = 0");
    EXPECT_EQ(sent<0>(0x1ABCDE, 1, 0, 0x80), "write 50 16:DEBC1A800100000001; = 0");
    EXPECT_EQ(sent<0>(0xE0000123, 1), "write 50 16:230100E00100000001; = 0");
    EXPECT_EQ(sent<0>(0x123, 2, 0x80), "write 50 16:23010040020000000102; = 0");
    EXPECT_EQ(sent<0>(0x123, 1, 1, 1), "write 50 16:230100C00100000001; = 0");
}

TEST_F(FrameTest, ACanFdDeviceSendsCanFdFramesWithBitRateSwitch) {
    EXPECT_EQ(sent<1>(0x123, 8), "write 51 72:23010000080100000102030405060708; = 0");
    EXPECT_EQ(sent<1>(0x1ABCDE, 0, 0, 0x80), "write 51 72:DEBC1A800001; = 0");
    EXPECT_EQ(sent<1>(0xE0000123, 1), "write 51 72:230100E00101000001; = 0");
}

TEST_F(FrameTest, ACanFdDeviceRefusesRemoteAndLongFrames) {
    EXPECT_EQ(sent<1>(0x123, 9, 0x80), "log 4 CAN FD does not support remote frames; = 3");
    EXPECT_EQ(sent<1>(0x123, 9), "log 4 CAN FD frame refused, len above 8:9; = 3");
}

TEST_F(FrameTest, AFrameFillsOnlyItsFieldsOfTheRecord) {
    EXPECT_EQ(received(16, 0x123, 3), filled(0x123, 3, 0, 0));
    EXPECT_EQ(received(72, 0x123, 3), filled(0x123, 3, 0, 0));
    EXPECT_EQ(received(72, 0x800007FF, 8), filled(0x800007FF, 8, 0, 1));
    EXPECT_EQ(received(16, 0x400007FF, 2), filled(0x400007FF, 2, 1, 0));
    EXPECT_EQ(received(16, 0xC01ABCDE, 0), filled(0xC01ABCDE, 0, 1, 1));
    EXPECT_EQ(received(16, 0x20000080, 9), filled(0x20000080, 8, 0, 0));
}

TEST_F(FrameTest, AFrameThatDoesNotFitIsDropped) {
    const std::string dropped = "; = 2 24:A5A5A5A5A5A5A5A5A5A5A5A5A5A5A5A5A5A5A5A5A5A5A5A5";
    EXPECT_EQ(received(72, 0x123, 9), "log 4 CAN FD frame dropped, len above 8:9" + dropped);
    EXPECT_EQ(received(15, 0x123, 3), "log 4 invalid CAN frame size: 15" + dropped);
    EXPECT_EQ(received(71, 0x123, 3), "log 4 invalid CAN frame size: 71" + dropped);
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
    m_answers = {{"select 50", -1, 4}, {"select 50", 1}, {"read", -1, 100}};
    EXPECT_EQ(outcome(poll), "log 4 select() error: Interrupted system call; = 2");
    EXPECT_EQ(outcome(poll), "log 4 read() error: Network is down; = 2");
}

TEST_F(ApiTest, TimeOutsAreExactOnDescriptorsBelowAndAbove1024) {
    const rlimit enough{1100, 1100};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &enough), 0);
    m_firstSocket = 1023;
    ASSERT_EQ(init(), 0);
    ASSERT_EQ(initOther(), 0);
    for (const int fd : {1023, 1024}) write(fd, &empty, sizeof empty);
    EXPECT_EQ(callsOf(receive<0, 4294967295>), "\nselect 1023 4294967 295000\nread 1023 72\n= 0\n");
    EXPECT_EQ(callsOf(receive<1, 4294967295>),
              "\nppoll 1 1024 1 4294967 295000000\nread 1024 72\n= 0\n");
}

// A lock that is held then is never released: in a forked child, its holder does not exist.
TEST_F(ApiTest, TheEndOfAProcessWaitsForNoLockAndClosesNoDevice) {
    const auto end = [this] {
        initOther();
        m_answers = {{"log 3", 0, 0, [] { exit(0); }}, {"system", 0, 0, [] { _exit(1); }}};
        release();
    };
    EXPECT_EXIT(end(), testing::ExitedWithCode(0), "");
}

TEST_F(ApiTest, OutOfMemoryLeavesNoDeviceAndNoSocketAndStopsNoFrame) {
    bool failed = true;
    for (long after = 0; failed; ++after) {
        failAllocation(after);
        try {
            init();
            release();
        } catch (const std::bad_alloc&) {
        }
        failed = failAllocation(-1) < 0;
        EXPECT_EQ(release(), CORVEL_NO_DEVICE);
        EXPECT_FALSE(isOpen(50));
    }
    ASSERT_EQ(init(), CORVEL_SUCCESS);
    failAllocation(0);
    EXPECT_EQ(send(), CORVEL_SUCCESS);
    EXPECT_EQ(poll(), CORVEL_NO_FRAME);
    EXPECT_EQ(failAllocation(-1), 0) << "a frame costs no allocation";
}
