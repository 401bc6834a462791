// The class interface, where it shows what the exported functions do not.

#include <unistd.h>

#include <memory>
#include <new>

#include "recorder.h"

using corvel::IInterface;

// Keeps the descriptor that the last handle to be opened holds.
class TestDriver : public corvel::DriverForSocketCan {
public:
    bool open(IInterface::DeviceDesc& desc, unsigned bitrate, bool canFd, unsigned rate) override {
        m_desc = &desc;
        return DriverForSocketCan::open(desc, bitrate, canFd, rate);
    }
    IInterface::DeviceDesc* m_desc = nullptr;
};

class HandleTest : public RecorderTest {
protected:
    ~HandleTest() override { m_device->close(); }

    std::shared_ptr<IInterface> handle(const std::string& name) const {
        return std::make_shared<IInterface>(m_driver,
                                            IInterface::DeviceDesc{-1, -1, name, nullptr});
    }

    const std::shared_ptr<TestDriver> m_driver = std::make_shared<TestDriver>();
    std::shared_ptr<IInterface> m_device = handle("can0");
    _corvel_CanMsg m_msg{};
    const std::function<int()> open = [this] { return m_device->open(1, false, 2); };
    const std::function<int()> close = [this] { return m_device->close(), 0; };
    const std::function<int()> read = [this] { return m_device->readMessage(m_msg, 0); };
    const std::function<int()> write = [this] { return m_device->writeMessage(m_msg); };
};

TEST_F(HandleTest, AScanAppendsCanLinksAndALookUpTakesTheFirstOfTheName) {
    m_links = {{280, "can10"}, {1, "can7"},   {280, "can01"}, {280, ""},    {280, "CAN1"},
               {281, "can8"},  {279, "can9"}, {280, "can1"},  {280, "can0"}};
    std::vector<std::shared_ptr<IInterface>> devices{m_device};
    ASSERT_TRUE(m_driver->scanDevices(devices));
    std::string names;
    for (const auto& device : devices) names += device->name() + ' ';
    ASSERT_EQ(names, "can0 can10 can01  CAN1 can1 can0 ");
    EXPECT_EQ(m_driver->getDeviceByIndex(0, devices), m_device);
    EXPECT_EQ(m_driver->getDeviceByIndex(7, devices), nullptr);
    m_device = m_driver->getDeviceByIndex(1, devices);
    ASSERT_TRUE(open());
    EXPECT_EQ(m_driver->m_desc->ifindex, 8);
}

TEST_F(HandleTest, ADeviceThatFailedToOpenIsNotReadButClosed) {
    m_answers = {{"bind", -1}};
    EXPECT_FALSE(open());
    EXPECT_EQ(callsOf(read), "\n= 0\n");
    EXPECT_EQ(outcome(close), "log 2 sudo ip link set can0 down; = 0");
}

TEST_F(HandleTest, ADeviceIsOpenedOnceAndAgainAfterItsClose) {
    EXPECT_TRUE(m_device->open(1, true, 2));
    EXPECT_EQ(outcome(open), "log 3 The device is already open!; = 0");
    EXPECT_EQ(outcome(write), "write 50 72:000000000001; = 1") << "the mode has changed";
    EXPECT_EQ(outcome(close), "close 50; log 2 sudo ip link set can0 down; = 0");
    EXPECT_EQ(outcome(write), "log 4 Failed to write, isOpen:0 fd:-1 handle:0; = 0");
    EXPECT_TRUE(open());
    EXPECT_EQ(outcome(write), "write 50 16:; = 1");
    m_device = handle("can0");
    EXPECT_EQ(::close(50), 0) << "the end of a handle closes nothing";
}

TEST_F(HandleTest, NamesThatAShellCouldMisreadRunNoCommand) {
    for (const std::string name : {"-can0", "can0;reboot", "can 0", "c/n", "c:n", "c@n", "c[n",
                                   "c`n", "c{n", "c\xC3\xA4n0", "can4567890123456"}) {
        m_device = handle(name);
        const std::string refused = "log 4 interface name refused:" + name + "; = 0";
        EXPECT_EQ(outcome(open), refused);
        EXPECT_EQ(outcome(close), refused);
    }
    for (const std::string name : {"", "can456789012345", "a-Z.9_z0A"}) {
        m_device = handle(name);
        EXPECT_NE(callsOf(open).find("INDEX " + name + '\n'), std::string::npos);
        close();
    }
}

TEST_F(HandleTest, DescriptorsThatAreNotOpenFailAtOnce) {
    IInterface::DeviceDesc desc;
    const auto readIt = [&] { return m_driver->readMessage(desc, m_msg, false, 60000); };
    for (const int fd : {-1, 40, 1024}) {
        desc.fd = fd;
        EXPECT_EQ(outcome(readIt), "log 4 select() error: Bad file descriptor; = 0");
    }
    desc.fd = STDIN_FILENO;
    m_answers = {{"select", 0}};
    EXPECT_EQ(callsOf(readIt), "\nselect 0 60 0\n= 0\n");
}

TEST_F(HandleTest, ADriverThatThrowsLeavesNoLockHeldAndTheStateAsItWas) {
    const auto fail = [] { throw std::bad_alloc(); };
    during("system", fail);
    EXPECT_THROW(open(), std::bad_alloc);
    EXPECT_TRUE(open());
    during("system", fail);
    EXPECT_THROW(close(), std::bad_alloc);
    EXPECT_FALSE(open());
}

TEST_F(HandleTest, ReadsAndWritesUseTheDescriptorAsItIsWhenTheyBegin) {
    ASSERT_TRUE(open());
    m_answers = {{"select 50", 0, 0, [this] { m_driver->m_desc->fd = 60; }}, {"read 50", -1}};
    ASSERT_EQ(::write(50, &m_msg, 16), 16);
    EXPECT_FALSE(read());
    m_answers.push_back({"select 60", 0});
    m_answers.push_back({"write 60", 16});
    EXPECT_FALSE(read());
    EXPECT_TRUE(write());
    m_driver->m_desc->fd = 50;
}

TEST_F(HandleTest, AReadBlocksReadsAloneAndAWriteWrites) {
    ASSERT_TRUE(open());
    during("select", [this] {
        EXPECT_TRUE(write());
        EXPECT_THROW(read(), std::system_error);
        EXPECT_FALSE(open());
        close();
        EXPECT_TRUE(open());
    });
    EXPECT_FALSE(read());
    during("write", [this] { EXPECT_THROW(write(), std::system_error); });
    EXPECT_TRUE(write());
}

TEST_F(HandleTest, CallsWaitForAnOpenOrCloseThatRuns) {
    const auto wait = [this] { EXPECT_THROW(read(), std::system_error); };
    during("system", wait);
    EXPECT_TRUE(open());
    during("system", wait);
    close();
}
