#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <chrono>
#include <csignal>

#include "frame_layout.h"
#include "support.h"

using corvel::IInterface;
using Bytes = std::vector<uint8_t>;

static IInterface::DeviceDesc describe(const std::string& name, int fd = -1) {
    IInterface::DeviceDesc desc;
    desc.name = name;
    desc.fd = fd;
    return desc;
}

class DriverTest : public CorvelTest {
protected:
    const std::shared_ptr<corvel::DriverForSocketCan> m_driver =
        std::make_shared<corvel::DriverForSocketCan>();
    std::vector<std::shared_ptr<IInterface>> m_devices;
};

TEST_F(DriverTest, ScanAppendsCanLinksInTheOrderOfTheCache) {
    m_devices.push_back(std::make_shared<IInterface>(m_driver, describe("can0")));
    ASSERT_TRUE(m_driver->scanDevices(m_devices));
    Lines names;
    for (const auto& device : m_devices) names.push_back(device->name());
    ASSERT_EQ(names, (Lines{"can0", "can10", "can01", "CAN1", "vcan0", "can1", "can0"}));
    m_devices.push_back(std::make_shared<IInterface>(m_driver, describe("can4294967295")));
    EXPECT_EQ(m_driver->getDeviceByIndex(0, m_devices), m_devices[0]) << "the first match";
    EXPECT_EQ(m_driver->getDeviceByIndex(1, m_devices), m_devices[5]);
    EXPECT_EQ(m_driver->getDeviceByIndex(10, m_devices), m_devices[1]);
    EXPECT_EQ(m_driver->getDeviceByIndex(7, m_devices), nullptr);
    EXPECT_EQ(m_driver->getDeviceByIndex(4294967295u, m_devices), m_devices.back());
}

TEST_F(DriverTest, ScanFailures) {
    simcan_failNext(SIMCAN_CACHE, 1);
    EXPECT_FALSE(m_driver->scanDevices(m_devices));
    EXPECT_EQ(takeLog(), (Log{{4, "could not access netlink device list, error code:-1"}}));
    corvel::DriverForSocketCan unshared;
    EXPECT_THROW(unshared.scanDevices(m_devices), std::bad_weak_ptr);
    EXPECT_TRUE(m_devices.empty());
}

TEST_F(DriverTest, CommandOutcomes) {
    const auto check = [&](const char* command, int expectedCode, const char* message) {
        int exitCode = 77;
        EXPECT_EQ(m_driver->systemExecute(command, exitCode), expectedCode == 0) << command;
        EXPECT_EQ(exitCode, expectedCode) << command;
        EXPECT_EQ(takeLog(), expectedCode == 0 ? Log{} : (Log{{4, message}}));
    };
    check("exit 0", 0, "");
    check("exit 3", 3, "Command returned non-zero exit code: 3");
    check("exit 255", 255, "Command returned non-zero exit code: 255");
    check("kill -9 $$", -1, "Command terminated by signal: 9");
    signal(SIGCHLD, SIG_IGN);
    check("true", -1, "system() failed, errno: 10 (No child processes)");
    signal(SIGCHLD, SIG_DFL);
}

TEST_F(DriverTest, OpensAndClosesInBothModes) {
    const std::string link = "sudo ip link set can0 ", down = link + "down";
    const std::string up[] = {
        link + "up type can bitrate 500000 sample-point 0.875 restart-ms 0",
        link +
            "up type can bitrate 500000 sample-point 0.75 dbitrate 4294967295 "
            "sample-point 0.75 restart-ms 0 fd on"};
    auto desc = describe("can0");
    for (const bool canFd : {false, true}) {
        ASSERT_TRUE(m_driver->open(desc, 500000, canFd, 4294967295u));
        EXPECT_EQ(takeLog(), (Log{{2, up[canFd]}}));
        EXPECT_EQ(takeCommands(),
                  (Lines{up[canFd], link + (canFd ? "txqueuelen 10000" : "txqueuelen 2000")}));
        EXPECT_EQ(fcntl(desc.fd, F_GETFD), FD_CLOEXEC);
        m_driver->close(desc);
        m_driver->close(desc);
        EXPECT_EQ(desc.fd, -1);
        EXPECT_EQ(takeLog(), (Log{{2, down}, {2, down}}));
        EXPECT_EQ(takeCommands(), (Lines{down, down}));
    }
}

TEST_F(DriverTest, EachFailingStepOfOpenLeavesNoSocket) {
    const auto check = [&](const char* order, simcan_Call call, int error, const Lines& messages) {
        const int before = openDescriptors();
        auto desc = describe("can0");
        const FailingSudo sudo(order);
        simcan_failNext(call, error);
        EXPECT_FALSE(m_driver->open(desc, 1, true, 1));
        EXPECT_EQ(desc.fd, -1);
        EXPECT_EQ(openDescriptors(), before);
        Log expected{{2, takeCommands()[0]}};
        for (const auto& message : messages) expected.emplace_back(4, message);
        EXPECT_EQ(takeLog(), expected);
    };
    const std::string code = "Command returned non-zero exit code: ";
    const std::string error = "error execute system cmd, error:";
    check("up exit 7", {}, 0, {code + "7", error + "7"});
    check("up kill 9", {}, 0, {code + "137", error + "137"});  // as sh reports a signal
    check("txqueuelen exit 1", {}, 0, {code + "1", error + "1"});
    check("", SIMCAN_SOCKET, EAFNOSUPPORT, {"error while opening socket"});
    check("", SIMCAN_IOCTL, ENODEV, {"error reading index of can0: No such device"});
    check("", SIMCAN_BIND, ENODEV, {"Error in socket bind"});
    check("", SIMCAN_SETSOCKOPT, ENOPROTOOPT, {"Error set CanFD"});
}

TEST_F(DriverTest, NamesThatAShellCouldMisreadRunNoCommand) {
    for (const std::string name : {"", "-can0", "can0;reboot", "can 0", "can0\n", "$(id)", "can0'",
                                   "c\xC3\xA4n0", "can4567890123456"}) {
        auto desc = describe(name);
        EXPECT_FALSE(m_driver->open(desc, 1, false, 1));
        desc.fd = dup(STDERR_FILENO);
        m_driver->close(desc);
        EXPECT_EQ(desc.fd, -1);
        EXPECT_EQ(takeLog(), Log(2, {4, "interface name refused:" + name}));
    }
    EXPECT_TRUE(takeCommands().empty());
    auto longest = describe("can456789012345");
    EXPECT_FALSE(m_driver->open(longest, 1, false, 1));  // no such interface, but a good name
    EXPECT_EQ(takeCommands().size(), 2u);
}

// Frames move between two connected sockets that behave as CAN sockets do: one datagram, one frame.
class FrameTest : public DriverTest {
protected:
    FrameTest() {
        if (socketpair(AF_UNIX, SOCK_DGRAM, 0, m_ends) != 0) abort();
        m_desc.fd = m_ends[0];
    }
    void TearDown() override {
        close(m_ends[0]), close(m_ends[1]);
        DriverTest::TearDown();
    }
    void send(const Bytes& bytes) const {
        ASSERT_EQ(::send(m_ends[1], bytes.data(), bytes.size(), 0),
                  static_cast<ssize_t>(bytes.size()));
    }
    static Bytes received(int fd) {
        Bytes bytes(100);
        const ssize_t size = recv(fd, bytes.data(), bytes.size(), MSG_DONTWAIT);
        bytes.resize(size < 0 ? 0 : static_cast<size_t>(size));
        return bytes;
    }
    // A frame that counts 1, 2, 3 in its payload.
    static Bytes frame(size_t size, uint32_t id, uint8_t len, uint8_t flags) {
        Bytes bytes(size, 0);
        memcpy(bytes.data(), &id, 4);
        bytes[4] = len;
        bytes[5] = flags;
        for (uint8_t i = 0; i < len; ++i) bytes[8u + i] = static_cast<uint8_t>(i + 1);
        return bytes;
    }
    void checkWrite(uint32_t id, uint8_t len, uint8_t remote, uint8_t extended) {
        const _corvel_CanMsg msg{id, {1, 2, 3, 4, 5, 6, 7, 8}, len, {9, 9}, remote, extended};
        const uint32_t word = id | (extended ? 0x80000000u : 0);
        EXPECT_TRUE(m_driver->writeMessage(m_desc, msg, false));
        EXPECT_EQ(received(m_ends[1]),
                  frame(16, word | (remote ? 0x40000000u : 0), len > 8 ? 8 : len, 0));
        EXPECT_EQ(takeLog(), Log{});
        const bool fits = remote == 0 && len <= 8;
        EXPECT_EQ(m_driver->writeMessage(m_desc, msg, true), fits);
        EXPECT_EQ(received(m_ends[1]), fits ? frame(72, word, len, 1) : Bytes{});
        const auto length = std::to_string(len);
        EXPECT_EQ(takeLog(), fits     ? Log{}
                             : remote ? Log(1, {4, "CAN FD does not support remote frames"})
                                      : Log(1, {4, "CAN FD frame refused, len above 8:" + length}));
    }
    void checkRead(const Bytes& datagram) {
        for (const bool canFd : {false, true}) {
            GuardedMsg expected, got;
            const bool fits = expectedRead(datagram.data(), datagram.size(), expected.msg);
            send(datagram);
            EXPECT_EQ(m_driver->readMessage(m_desc, got.msg, canFd, 1000), fits);
            EXPECT_EQ(got, expected);
            const size_t size = datagram.size();
            const std::string text =
                size < 72 ? "invalid CAN frame size: " + std::to_string(size)
                          : "CAN FD frame dropped, len above 8:" + std::to_string(datagram[4]);
            EXPECT_EQ(takeLog(), fits ? Log{} : Log(1, {4, text}));
            EXPECT_EQ(received(m_desc.fd), Bytes{}) << "consumed, whatever it was";
        }
    }
    void checkNoFrame(int fd, unsigned timeout, const Log& log) {
        m_desc.fd = fd;
        GuardedMsg got;
        EXPECT_FALSE(m_driver->readMessage(m_desc, got.msg, false, timeout));
        EXPECT_EQ(got, GuardedMsg());
        EXPECT_EQ(takeLog(), log) << fd;
    }
    int m_ends[2];
    IInterface::DeviceDesc m_desc;
};

TEST_F(FrameTest, EveryByteOfRecordsAndDatagrams) {
    for (size_t size = 0; size <= 80; ++size) checkRead(Bytes(size, 3));
    for (unsigned value = 0; value < 256; ++value) {
        const auto byte = static_cast<uint8_t>(value);
        checkWrite(0x123, byte, 0, 0);
        checkWrite(0x7FF, 2, byte, 0);
        checkWrite(0x1ABCDE, 8, 0, byte);
        for (unsigned shift = 0; shift < 32; shift += 8) {
            checkWrite(value << shift, 1, 0, 0);
            checkRead(frame(16, value << shift, 8, 0));
            checkRead(frame(72, value << shift, 3, byte));
        }
        for (const size_t size : {16u, 72u}) {
            Bytes datagram = frame(size, 0x123, 8, 0);
            datagram[4] = byte;
            checkRead(datagram);
        }
    }
}

TEST_F(FrameTest, ReportsFramesThatWereNotWritten) {
    m_desc.fd = dup(m_ends[0]);
    close(m_desc.fd);
    EXPECT_FALSE(m_driver->writeMessage(m_desc, {}, false));
    EXPECT_EQ(takeLog(), (Log{{4, "write error:Bad file descriptor(errno=9)"}}));

    auto device = describe("can1");
    ASSERT_TRUE(m_driver->open(device, 1, false, 1));
    takeLog();
    simcan_failNext(SIMCAN_WRITE, ENOBUFS);
    EXPECT_FALSE(m_driver->writeMessage(device, {}, false));
    EXPECT_EQ(takeLog(), (Log{{4, "write error:No buffer space available(errno=105)"}}));
    EXPECT_FALSE(m_driver->writeMessage(device, {}, true)) << "a classic socket takes no CAN FD";
    m_driver->close(device);
}

TEST_F(FrameTest, WaitsAsLongAsAsked) {
    using std::chrono::milliseconds;
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = 1600;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    signal(SIGALRM, [](int) {});
    ASSERT_EQ(dup2(m_ends[0], 1500), 1500);
    for (const int fd : {m_ends[0], 1500}) {  // in reach of select, and beyond
        for (const unsigned timeout : {0u, 250u}) {
            const auto start = std::chrono::steady_clock::now();
            checkNoFrame(fd, timeout, {});
            const auto took = std::chrono::steady_clock::now() - start;
            EXPECT_TRUE(took >= milliseconds(timeout) && took < milliseconds(timeout + 2000));
        }
        send(frame(16, 0x123, 3, 0));
        _corvel_CanMsg got{};
        EXPECT_TRUE(m_driver->readMessage(m_desc, got, false, 4294967295u));
        const itimerval soon{{0, 0}, {0, 50000}};
        setitimer(ITIMER_REAL, &soon, nullptr);
        checkNoFrame(fd, 10000, {{4, "select() error: Interrupted system call"}});
    }
    close(1500);
    for (const int fd : {-1, m_ends[1] + 1, 1500}) {
        checkNoFrame(fd, 5000, {{4, "select() error: Bad file descriptor"}});
    }
    const int folder = open("/", O_RDONLY | O_DIRECTORY);
    checkNoFrame(folder, 5000, {{4, "read() error: Is a directory"}});
    close(folder);
}
