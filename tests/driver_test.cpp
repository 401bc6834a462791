#include <fcntl.h>
#include <netlink/errno.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstring>

#include "support.h"

using corvel::DriverForSocketCan;
using corvel::IInterface;
using Devices = std::vector<std::shared_ptr<IInterface>>;
using Bytes = std::vector<uint8_t>;

// Grants access to a handle's descriptor: explicit instantiation ignores access rights.
const IInterface::DeviceDesc& descriptorOf(const IInterface& device);
template <auto Member>
struct Opened {
    friend const IInterface::DeviceDesc& descriptorOf(const IInterface& device) {
        return device.*Member;
    }
};
template struct Opened<&IInterface::m_desc>;

class DriverTest : public CorvelTest {
protected:
    static IInterface::DeviceDesc named(const std::string& name) {
        IInterface::DeviceDesc desc;
        desc.name = name;
        return desc;
    }
    const std::shared_ptr<DriverForSocketCan> m_driver = std::make_shared<DriverForSocketCan>();
};

TEST_F(DriverTest, ScanAppendsCanLinksInTheOrderOfTheCache) {
    Devices devices{std::make_shared<IInterface>(m_driver, named("can0"))};
    const auto older = devices[0];
    ASSERT_TRUE(m_driver->scanDevices(devices));
    const char* const names[] = {"can0", "can10", "can01", "CAN1", "vcan0", "can1", "can0"};
    ASSERT_EQ(devices.size(), std::size(names));
    for (size_t i = 1; i < devices.size(); ++i) {
        const auto& desc = descriptorOf(*devices[i]);
        EXPECT_EQ(desc.name, names[i]);
        EXPECT_EQ(desc.ifindex, 99 + static_cast<int>(i));
        EXPECT_EQ(desc.fd, -1);
        EXPECT_EQ(desc.handle, nullptr);
    }
    EXPECT_EQ(m_driver->getDeviceByIndex(0, devices), older);
    EXPECT_EQ(m_driver->getDeviceByIndex(1, devices), devices[5]);
    EXPECT_EQ(m_driver->getDeviceByIndex(10, devices), devices[1]);
    EXPECT_EQ(m_driver->getDeviceByIndex(7, devices), nullptr);
    EXPECT_EQ(m_driver->getDeviceByIndex(0, {}), nullptr);
    devices.push_back(std::make_shared<IInterface>(m_driver, named("can4294967295")));
    EXPECT_EQ(m_driver->getDeviceByIndex(4294967295u, devices), devices.back());
    EXPECT_EQ(takeLog(), Log{});
}

TEST_F(DriverTest, ScanFailures) {
    Devices devices;
    simcan_failNext(SIMCAN_CACHE, NLE_FAILURE);
    EXPECT_FALSE(m_driver->scanDevices(devices));
    noNetlinkSocket = true;
    EXPECT_FALSE(m_driver->scanDevices(devices));
    noNetlinkSocket = false;
    const std::string text = "could not access netlink device list, error code:";
    EXPECT_EQ(takeLog(), (Log{{4, text + std::to_string(-NLE_FAILURE)},
                              {4, text + std::to_string(-NLE_NOMEM)}}));
    DriverForSocketCan unshared;
    EXPECT_THROW(unshared.scanDevices(devices), std::bad_weak_ptr);
    EXPECT_TRUE(devices.empty());
}

TEST_F(DriverTest, CommandOutcomes) {
    const struct {
        const char* command;
        int exitCode;
        Log log;
    } cases[] = {
        {"exit 0", 0, {}},
        {"exit 3", 3, {{4, "Command returned non-zero exit code: 3"}}},
        {"exit 255", 255, {{4, "Command returned non-zero exit code: 255"}}},
        {"kill -9 $$", -1, {{4, "Command terminated by signal: 9"}}},
    };
    for (const auto& c : cases) {
        int exitCode = 77;
        EXPECT_EQ(m_driver->systemExecute(c.command, exitCode), c.exitCode == 0) << c.command;
        EXPECT_EQ(exitCode, c.exitCode) << c.command;
        EXPECT_EQ(takeLog(), c.log);
    }
    int exitCode = 77;
    signal(SIGCHLD, SIG_IGN);
    EXPECT_FALSE(m_driver->systemExecute("exit 0", exitCode));
    signal(SIGCHLD, SIG_DFL);
    EXPECT_EQ(exitCode, -1);
    EXPECT_EQ(takeLog(), (Log{{4, "system() failed, errno: 10 (No child processes)"}}));
}

TEST_F(DriverTest, OpensAndClosesInBothModes) {
    const struct {
        bool canFd;
        std::string up, queue;
    } cases[] = {
        {false, "sudo ip link set can0 up type can bitrate 500000 sample-point 0.875 restart-ms 0",
         "sudo ip link set can0 txqueuelen 2000"},
        {true,
         "sudo ip link set can0 up type can bitrate 500000 sample-point 0.75 dbitrate 4294967295 "
         "sample-point 0.75 restart-ms 0 fd on",
         "sudo ip link set can0 txqueuelen 10000"},
    };
    const std::string down = "sudo ip link set can0 down";
    auto desc = named("can0");
    for (const auto& c : cases) {
        ASSERT_TRUE(m_driver->open(desc, 500000, c.canFd, 4294967295u));
        EXPECT_EQ(takeLog(), (Log{{2, c.up}}));
        EXPECT_EQ(takeCommands(), (std::vector{c.up, c.queue}));
        EXPECT_EQ(fcntl(desc.fd, F_GETFD), FD_CLOEXEC);
        m_driver->close(desc);
        m_driver->close(desc);
        EXPECT_EQ(desc.fd, -1);
        EXPECT_EQ(takeLog(), (Log{{2, down}, {2, down}}));
        EXPECT_EQ(takeCommands(), (std::vector{down, down}));
    }
}

TEST_F(DriverTest, EachFailingStepOfOpenLeavesNoSocket) {
    const std::string error = "error execute system cmd, error:";
    const struct {
        const char* sudo;
        simcan_Call call;
        int error;
        Log log;  // after the link-up line
        size_t commands;
    } cases[] = {
        {"up exit 7", {}, 0, {{4, "Command returned non-zero exit code: 7"}, {4, error + "7"}}, 1},
        // sh reports the signal as an exit status
        {"up kill 9",
         {},
         0,
         {{4, "Command returned non-zero exit code: 137"}, {4, error + "137"}},
         1},
        {"txqueuelen exit 1",
         {},
         0,
         {{4, "Command returned non-zero exit code: 1"}, {4, error + "1"}},
         2},
        {"", SIMCAN_SOCKET, EAFNOSUPPORT, {{4, "error while opening socket"}}, 2},
        {"", SIMCAN_IOCTL, ENODEV, {{4, "error reading index of can0: No such device"}}, 2},
        {"", SIMCAN_BIND, ENODEV, {{4, "Error in socket bind"}}, 2},
        {"", SIMCAN_SETSOCKOPT, ENOPROTOOPT, {{4, "Error set CanFD"}}, 2},
    };
    for (const auto& c : cases) {
        const int before = openDescriptors();
        auto desc = named("can0");
        const FailingSudo sudo(c.sudo);
        if (c.error != 0) simcan_failNext(c.call, c.error);
        EXPECT_FALSE(m_driver->open(desc, 1, true, 1));
        EXPECT_EQ(desc.fd, -1);
        EXPECT_EQ(openDescriptors(), before);
        Log log = takeLog();
        ASSERT_FALSE(log.empty());
        log.erase(log.begin());
        EXPECT_EQ(log, c.log);
        EXPECT_EQ(takeCommands().size(), c.commands);
    }
}

TEST_F(DriverTest, NamesThatAShellCouldMisreadRunNoCommand) {
    for (const std::string name : {"", "-can0", "can0;reboot", "can 0", "can0\n", "$(id)", "can0'",
                                   "c\xC3\xA4n0", "can4567890123456"}) {
        auto desc = named(name);
        EXPECT_FALSE(m_driver->open(desc, 1, false, 1));
        desc.fd = dup(STDERR_FILENO);
        m_driver->close(desc);
        EXPECT_EQ(desc.fd, -1);
        const Log refused{{4, "interface name refused:" + name}};
        EXPECT_EQ(takeLog(), (Log{refused[0], refused[0]}));
    }
    EXPECT_TRUE(takeCommands().empty());
    auto longest = named("can456789012345");
    EXPECT_FALSE(m_driver->open(longest, 1, false, 1));  // no such interface, but a good name
    EXPECT_EQ(takeCommands().size(), 2u);
}

// The bytes of a frame of the given size, from the layout of the kernel's structures.
static Bytes frameBytes(size_t size, uint32_t id, uint8_t len, uint8_t flags, const uint8_t* data) {
    Bytes bytes(size, 0);
    memcpy(bytes.data(), &id, 4);
    bytes[4] = len;
    bytes[5] = flags;
    for (size_t i = 0; i < len; ++i) bytes[8 + i] = data[i];
    return bytes;
}

static Bytes received(int fd) {
    Bytes bytes(100);
    const ssize_t size = recv(fd, bytes.data(), bytes.size(), MSG_DONTWAIT);
    bytes.resize(size < 0 ? 0 : static_cast<size_t>(size));
    return bytes;
}

static const uint8_t payload[64] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};

TEST_F(DriverTest, WritesEveryRecordToTheByte) {
    const SocketPair sockets;
    const auto check = [&](uint32_t id, uint8_t len, uint8_t remote, uint8_t extended) {
        _corvel_CanMsg msg;
        memset(&msg, 0xFF, sizeof msg);
        msg.id = id, msg.len = len, msg.remote = remote, msg.extended = extended;
        memcpy(msg.data, payload, sizeof msg.data);
        const uint32_t word = id | (extended ? 0x80000000u : 0);

        EXPECT_TRUE(m_driver->writeMessage(sockets.desc(), msg, false));
        EXPECT_EQ(received(sockets.far),
                  frameBytes(16, word | (remote ? 0x40000000u : 0), len > 8 ? 8 : len, 0, payload));
        EXPECT_EQ(takeLog(), Log{});

        const bool fits = remote == 0 && len <= 8;
        EXPECT_EQ(m_driver->writeMessage(sockets.desc(), msg, true), fits);
        EXPECT_EQ(received(sockets.far), fits ? frameBytes(72, word, len, 1, payload) : Bytes{});
        const std::string reason = remote
                                       ? "CAN FD does not support remote frames"
                                       : "CAN FD frame refused, len above 8:" + std::to_string(len);
        EXPECT_EQ(takeLog(), fits ? Log{} : (Log{{4, reason}}));
    };
    for (unsigned value = 0; value < 256; ++value) {
        const auto byte = static_cast<uint8_t>(value);
        check(0x123, byte, 0, 0);
        check(0x7FF, 2, byte, 0);
        check(0x1ABCDE, 8, 0, byte);
        for (unsigned shift = 0; shift < 32; shift += 8) check(value << shift, 1, 0, 0);
    }
}

TEST_F(DriverTest, ReportsFramesThatWereNotWritten) {
    SocketPair sockets;
    const int closed = dup(sockets.near);
    close(closed);
    auto desc = sockets.desc();
    desc.fd = closed;
    EXPECT_FALSE(m_driver->writeMessage(desc, {}, false));
    EXPECT_EQ(takeLog(), (Log{{4, "write error:Bad file descriptor(errno=9)"}}));

    auto device = named("can1");
    ASSERT_TRUE(m_driver->open(device, 1, false, 1));
    takeLog();
    simcan_failNext(SIMCAN_WRITE, ENOBUFS);
    EXPECT_FALSE(m_driver->writeMessage(device, {}, false));
    EXPECT_EQ(takeLog(), (Log{{4, "write error:No buffer space available(errno=105)"}}));
    EXPECT_FALSE(m_driver->writeMessage(device, {}, true)) << "a classic socket takes no CAN FD";
    m_driver->close(device);
}

// Sends a datagram and checks what reading it gives, and that nothing else is touched.
static void checkRead(DriverForSocketCan& driver, const SocketPair& sockets,
                      const Bytes& datagram) {
    ASSERT_EQ(send(sockets.far, datagram.data(), datagram.size(), 0),
              static_cast<ssize_t>(datagram.size()));
    GuardedMsg expected, got;
    Log log;
    // More than 72 bytes arrive cut to 72, and no socket of the kernel's delivers them.
    if (datagram.size() != 16 && datagram.size() < 72) {
        log = {{4, "invalid CAN frame size: " + std::to_string(datagram.size())}};
    } else {
        const uint8_t length = datagram[4];
        const uint8_t len = datagram.size() == 16 && length > 8 ? 8 : length;
        if (len > 8) {
            log = {{4, "CAN FD frame dropped, len above 8:" + std::to_string(len)}};
        } else {
            memcpy(&expected.msg.id, datagram.data(), 4);
            memcpy(expected.msg.data, datagram.data() + 8, len);
            expected.msg.len = len;
            expected.msg.remote = (datagram[3] & 0x40) ? 1 : 0;
            expected.msg.extended = (datagram[3] & 0x80) ? 1 : 0;
        }
    }
    for (const bool canFd : {false, true}) {
        if (canFd) send(sockets.far, datagram.data(), datagram.size(), 0);
        EXPECT_EQ(driver.readMessage(sockets.desc(), got.msg, canFd, 1000), log.empty());
        EXPECT_EQ(got, expected);
        EXPECT_EQ(takeLog(), log);
    }
    EXPECT_EQ(received(sockets.near), Bytes{}) << "the datagram is consumed";
}

TEST_F(DriverTest, ReadsEveryDatagramToTheByte) {
    const SocketPair sockets;
    for (size_t size = 0; size <= 80; ++size) checkRead(*m_driver, sockets, Bytes(size, 3));
    for (unsigned value = 0; value < 256; ++value) {
        const auto byte = static_cast<uint8_t>(value);
        for (const size_t size : {16u, 72u}) {
            Bytes datagram = frameBytes(size, 0x123, 8, 0xFF, payload);
            datagram[4] = byte;
            checkRead(*m_driver, sockets, datagram);
            datagram[4] = 3, datagram[3] = byte;
            checkRead(*m_driver, sockets, datagram);
        }
    }
}

TEST_F(DriverTest, WaitsAsLongAsAsked) {
    using std::chrono::steady_clock;
    const SocketPair sockets;
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    ASSERT_GT(limit.rlim_max, 1600u);
    limit.rlim_cur = 1600;
    setrlimit(RLIMIT_NOFILE, &limit);
    for (const int number : {sockets.near, 1500}) {  // in reach of select, and beyond
        auto desc = sockets.desc();
        desc.fd = number == sockets.near ? number : dup2(sockets.near, number);
        GuardedMsg got;
        for (const unsigned timeout : {0u, 250u}) {
            const auto start = steady_clock::now();
            EXPECT_FALSE(m_driver->readMessage(desc, got.msg, false, timeout));
            const auto took = steady_clock::now() - start;
            EXPECT_GE(took, std::chrono::milliseconds(timeout));
            EXPECT_LT(took, std::chrono::milliseconds(timeout + 2000));
        }
        EXPECT_EQ(got, GuardedMsg());
        EXPECT_EQ(takeLog(), Log{});

        const Bytes frame = frameBytes(16, 0x123, 3, 0, payload);
        send(sockets.far, frame.data(), frame.size(), 0);
        EXPECT_TRUE(m_driver->readMessage(desc, got.msg, false, 4294967295u));
        EXPECT_EQ(got.msg.id, 0x123u);

        // A signal ends the wait.
        signal(SIGALRM, [](int) {});
        const itimerval soon{{0, 0}, {0, 50000}};
        setitimer(ITIMER_REAL, &soon, nullptr);
        EXPECT_FALSE(m_driver->readMessage(desc, got.msg, false, 10000));
        EXPECT_EQ(takeLog(), (Log{{4, "select() error: Interrupted system call"}}));
    }
    close(1500);
    for (const int number : {-1, sockets.far + 1, 1500}) {
        auto desc = sockets.desc();
        desc.fd = number;
        GuardedMsg got;
        EXPECT_FALSE(m_driver->readMessage(desc, got.msg, false, 5000));
        EXPECT_EQ(takeLog(), (Log{{4, "select() error: Bad file descriptor"}})) << number;
    }
    auto folder = sockets.desc();
    folder.fd = open("/", O_RDONLY | O_DIRECTORY);
    GuardedMsg got;
    EXPECT_FALSE(m_driver->readMessage(folder, got.msg, false, 5000));
    EXPECT_EQ(takeLog(), (Log{{4, "read() error: Is a directory"}}));
    close(folder.fd);
}
