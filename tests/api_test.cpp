// Everything that the exported functions do, in order and to the byte.

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstring>
#include <future>
#include <thread>

#include "recorder.h"

using ApiTest = RecorderTest;

static const auto init = [] { return corvel_initDLL(0, 500, false, 2000); };
static const auto initCanFd = [] { return corvel_initDLL(0, 500, true, 2000); };
static const auto initOther = [] { return corvel_initDLL(1, 500, true, 2000); };
static const auto release = [] { return corvel_freeDLL(0); };
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
static const std::string released = "\nclose 50\n" + down + "= 0\n";

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

// a is the lock of the registry; b, c and d are the state, write and read lock of the first device.
TEST_F(ApiTest, ACallHoldsOneLockAtATimeAndNoneOfAnotherDevice) {
    EXPECT_EQ(locksOf(init), "(a).(b.).(a)");
    EXPECT_EQ(locksOf(init), "(a.)");
    EXPECT_EQ(locksOf(send), "(a)(b)(c.)");
    EXPECT_EQ(locksOf(poll), "(a)(b)(d.)");
    EXPECT_EQ(locksOf(initOther), "(a).(e.).(a)");
    EXPECT_EQ(locksOf(sendOn<1>), "(a)(e)(f.)");
    EXPECT_EQ(locksOf(release), "(a)(b.).");
    EXPECT_EQ(locksOf(release), "(a.)");
    EXPECT_EQ(locksOf(send), "(a.)");
    EXPECT_EQ(locksOf(poll), "(a.)");
}

// A read that is inside the driver when its device is released. The release takes two numbers,
// those of a dead socket and of a copy.
class ReleaseTest : public RecorderTest {
protected:
    ReleaseTest() {
        close(m_dead);
        close(m_copy);
    }

    // What the two do together.
    std::string readMeetsRelease(std::list<Answer> answers = {}) {
        m_answers = {{"select", 0, 0, [] { EXPECT_EQ(release(), 0); }}};
        m_answers.splice(m_answers.end(), answers);
        return callsOf(poll);
    }

    const int m_dead = dup(STDERR_FILENO), m_copy = dup(STDERR_FILENO);  // the lowest free ones
    const std::string m_closeDead = "close " + std::to_string(m_dead) + '\n';
    const std::string m_closeCopy = "close " + std::to_string(m_copy) + '\n';
    const std::string m_begin = "\nselect 50 0 0\n" + m_closeDead;
    const std::string m_end =
        m_closeCopy + down + "read 50 72\nlog 4 read() error: Invalid argument\nclose 50\n= 2\n";
};

TEST_F(ReleaseTest, AReadEndsOnANumberThatNobodyElseGetsOrInherits) {
    const auto checkFlags = [&] {
        EXPECT_EQ(fcntl(50, F_GETFD), FD_CLOEXEC);
        EXPECT_EQ(fcntl(m_copy, F_GETFD), FD_CLOEXEC);
    };
    ASSERT_EQ(init(), 0);
    EXPECT_EQ(readMeetsRelease({{"FLAGS", 0, 0, checkFlags}}),
              m_begin + "ioctl " + std::to_string(m_copy) + " FLAGS can0\n" + m_end);
}

// What comes after a call that fails is left out, so that no frame of another interface is let in.
TEST_F(ReleaseTest, AReadIsWokenOnALinkThatIsDownAlready) {
    m_linkIsUp = false;
    const std::string copy = std::to_string(m_copy);
    std::string expected = m_begin;
    for (const std::string& call :
         {"ioctl " + copy + " FLAGS can0", "ioctl " + copy + " INDEX can0",
          "setsockopt " + copy + " FILTER 0:", "bind " + copy + " 16:1D",
          "bind " + copy + " 16:1D0000004D"}) {
        expected += call + '\n';
        ASSERT_EQ(init(), 0);
        EXPECT_EQ(readMeetsRelease({{call, -1, 19}}), expected + m_end);
    }
}

// The limit keeps the release from making a dead socket, a copy, or one of them with the old
// number.
TEST_F(ReleaseTest, AReadEndsWhereALimitThatWasLoweredKeepsNoNumber) {
    rlimit usual;
    getrlimit(RLIMIT_NOFILE, &usual);
    for (const auto& [limit, closed] : {std::pair{m_dead, std::string()},
                                        {m_copy, m_closeDead},
                                        {50, m_closeCopy + m_closeDead}}) {
        ASSERT_EQ(init(), 0);
        const rlimit lowered{static_cast<rlim_t>(limit), usual.rlim_max};
        setrlimit(RLIMIT_NOFILE, &lowered);
        EXPECT_EQ(readMeetsRelease(), "\nselect 50 0 0\n" + closed +
                                          "ioctl 50 FLAGS can0\nclose 50\n" + down +
                                          "log 4 select() error: Bad file descriptor\n= 2\n");
        setrlimit(RLIMIT_NOFILE, &usual);
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

// The name of the case; which call gives which result and errno; the messages; what is closed.
static const char* const failures = R"(
up_exits        system         65280   0 log 4 Command returned non-zero exit code: 255; log 4 error execute system cmd, error:255
up_is_ended     system           134   0 log 4 Command terminated by signal: 6; log 4 error execute system cmd, error:-1
up_ends_oddly   system          4991   0 log 4 Command did not exit normally.\n; log 4 error execute system cmd, error:-1
up_is_not_run   system            -1  10 log 4 system() failed, errno: 10 (No child processes); log 4 error execute system cmd, error:-1
length_is_ended txqueuelen         2   0 log 4 Command terminated by signal: 2; log 4 error execute system cmd, error:-1
no_socket       PF_CAN            -1  97 log 4 error while opening socket
no_index        ioctl             -1  19 log 4 error reading index of can0: No such device; close 50
no_binding      bind              -1  19 log 4 Error in socket bind; close 50
no_can_fd       setsockopt        -1  92 log 4 Error set CanFD; close 50
)";

TEST_F(ApiTest, AFailedInitialisationSaysWhyAndLeavesNothing) {
    Answer answer;
    std::string name, messages;
    for (std::istringstream rows(failures);
         rows >> name >> answer.text >> answer.result >> answer.error;) {
        std::getline(rows >> std::ws, messages);
        SCOPED_TRACE(name);
        m_answers = {answer};
        EXPECT_EQ(outcome(initCanFd),
                  "log 2 " + upCanFd + "; " + messages + "; log 4 Open Corvel failed.; = 5");
        EXPECT_EQ(send(), 1) << "registered";
    }
    const std::string unscanned = "log 4 could not access netlink device list, error code:";
    m_answers = {{"nl_socket_alloc", -1}, {"alloc_cache", -12}, {"nl_connect", -7}};
    EXPECT_EQ(outcome(init), unscanned + "-5; log 4 Scan failed.; = 1");
    EXPECT_EQ(outcome(init), unscanned + "-12; log 4 Scan failed.; = 1");
    EXPECT_EQ(init(), 0) << "a socket that is not connected shows in what follows";
}

// The name of the case; a record's identifier, payload, length, and remote and extended; the 16
// bytes that are written of it in classic mode; what happens in CAN FD mode.
static const char* const written = R"(
full        23010000 0102030405060708 08 0000 23010000080000000102030405060708 write 51 72:23010000080100000102030405060708; = 0
empty       01000000 0100000000000000 00 0000 01                               write 51 72:010000000001; = 0
extended    DEBC1A00 0100000000000000 01 0001 DEBC1A800100000001               write 51 72:DEBC1A800101000001; = 0
flags_in_id 230100E0 0100000000000000 01 0080 230100E00100000001               write 51 72:230100E00101000001; = 0
remote      23010000 0102000000000000 02 0100 23010040020000000102             log 4 CAN FD does not support remote frames; = 3
remote_of_9 23010000 0000000000000000 09 0202 230100C008                       log 4 CAN FD does not support remote frames; = 3
of_9        23010000 0102030405060708 09 0000 23010000080000000102030405060708 log 4 CAN FD frame refused, len above 8:9; = 3
)";

TEST_F(ApiTest, ARecordIsWrittenInTheModeOfItsDevice) {
    ASSERT_EQ(init(), 0);
    ASSERT_EQ(initOther(), 0);
    std::string name, id, data, len, flags, classic, canFd;
    for (std::istringstream rows(written); rows >> name >> id >> data >> len >> flags >> classic;) {
        std::getline(rows >> std::ws, canFd);
        SCOPED_TRACE(name);
        _corvel_CanMsg msg;
        const std::string record = bytes(id + data + len + "09090909090909" + flags, sizeof msg);
        memcpy(&msg, record.data(), sizeof msg);
        EXPECT_EQ(outcome([&] { return corvel_writeMessage(0, &msg); }),
                  "write 50 16:" + classic + "; = 0");
        EXPECT_EQ(outcome([&] { return corvel_writeMessage(1, &msg); }), canFd);
    }
}

// The name of the case; a frame's size and first bytes; what becomes of a record of which all bytes
// were A5; the outcome.
static const char* const received = R"(
classic       16 2301000003000000010203040506       23010000 010203A5A5A5A5A5 03 0000 = 0
can_fd        72 2301000003FF0000010203040506       23010000 010203A5A5A5A5A5 03 0000 = 0
extended_full 72 FF07008008000000010203040506070809 FF070080 0102030405060708 08 0001 = 0
remote_empty  16 FF07004002                         FF070040 0000A5A5A5A5A5A5 02 0100 = 0
both_flags    16 DEBC1AC0                           DEBC1AC0 A5A5A5A5A5A5A5A5 00 0101 = 0
error         16 80000020090000000102030405060708   80000020 0102030405060708 08 0000 = 0
can_fd_of_9   72 2301000009                         A5A5A5A5 A5A5A5A5A5A5A5A5 A5 A5A5 log 4 CAN FD frame dropped, len above 8:9; = 2
short         15 2301                               A5A5A5A5 A5A5A5A5A5A5A5A5 A5 A5A5 log 4 invalid CAN frame size: 15; = 2
too_short_fd  71 2301                               A5A5A5A5 A5A5A5A5A5A5A5A5 A5 A5A5 log 4 invalid CAN frame size: 71; = 2
)";

TEST_F(ApiTest, AFrameIsReadByItsSizeInEitherMode) {
    ASSERT_EQ(init(), 0);
    ASSERT_EQ(initOther(), 0);
    size_t size;
    std::string name, frame, id, data, len, flags, expected;
    for (std::istringstream rows(received);
         rows >> name >> size >> frame >> id >> data >> len >> flags;) {
        std::getline(rows >> std::ws, expected);
        SCOPED_TRACE(name);
        for (const int32_t index : {0, 1}) {
            write(50 + index, bytes(frame, size).data(), size);
            _corvel_CanMsg msg;
            memset(&msg, 0xA5, sizeof msg);
            EXPECT_EQ(outcome([&] { return corvel_readMessage(index, &msg, 9); }), expected);
            EXPECT_EQ(testing::PrintToString(Bytes{&msg, sizeof msg}),
                      "24:" + id + data + len + "A5A5A5A5A5A5A5" + flags + "A5A5");
        }
    }
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

TEST_F(ApiTest, AProcessEndsWhileARefusalThatHoldsTheRegistryIsLogged) {
    const auto end = [&] {
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
    const auto isOpen = [] { return fcntl(50, F_GETFD) >= 0; };
    failEachAllocation(init, [&] {
        EXPECT_EQ(send() == 0, isOpen()) << "a device is registered or closed";
        release();
    });
    ASSERT_EQ(init(), 0);
    failAllocation(0);
    EXPECT_EQ(send(), 0);
    EXPECT_EQ(poll(), 2);
    EXPECT_EQ(failAllocation(-1), 0) << "a frame costs no allocation";
    failEachAllocation([] { corvel_readMessage(0, nullptr, 0); }, [] { EXPECT_EQ(poll(), 2); });
    failEachAllocation(release, [&] {
        EXPECT_FALSE(isOpen());
        EXPECT_EQ(release(), 1);
        EXPECT_EQ(init(), 0);
    });
}
