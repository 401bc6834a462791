// The class interface, where it shows what the exported functions do not.

#include <unistd.h>

#include "recorder.h"

using corvel::IInterface;

using HandleTest = RecorderTest;

static const auto driver = std::make_shared<corvel::DriverForSocketCan>();
static std::shared_ptr<IInterface> handle(const std::string& name) {
    IInterface::DeviceDesc desc;
    desc.name = name;
    return std::make_shared<IInterface>(driver, desc);
}
static _corvel_CanMsg msg{};

TEST_F(HandleTest, AScanAppendsCanLinksAndALookUpTakesTheFirstOfTheName) {
    m_links = {{280, "can10"}, {1, "can7"},   {280, "can01"}, {280, ""},    {280, "CAN1"},
               {281, "can8"},  {279, "can9"}, {280, "can1"},  {280, "can0"}};
    std::vector<std::shared_ptr<IInterface>> devices{handle("can0")};
    ASSERT_TRUE(driver->scanDevices(devices));
    std::string names;
    for (const auto& device : devices) names += device->name() + ' ';
    ASSERT_EQ(names, "can0 can10 can01  CAN1 can1 can0 ");
    EXPECT_EQ(driver->getDeviceByIndex(0, devices), devices[0]);
    EXPECT_EQ(driver->getDeviceByIndex(1, devices), devices[5]);
    EXPECT_EQ(driver->getDeviceByIndex(10, devices), devices[1]);
    EXPECT_EQ(driver->getDeviceByIndex(7, devices), nullptr);
}

TEST_F(HandleTest, AHandleFollowsItsStates) {
    auto device = handle("can0");
    const auto open = [&] { return device->open(1, false, 2); };
    const auto close = [&] { return device->close(), 0; };
    const auto write = [&] { return device->writeMessage(msg); };
    const auto read = [&] { return device->readMessage(msg, 60000); };
    const std::string down = "log 2 sudo ip link set can0 down; = 0";
    const std::string notOpen = "\na/a log 4 Failed to write, isOpen:0 fd:-1 handle:0\na/ = 0\n";
    EXPECT_EQ(callsOf(read), "\na/ = 0\n") << "at once, without a message";
    EXPECT_EQ(callsOf(write), notOpen);
    EXPECT_EQ(outcome(close), down);
    m_answers = {{"bind", -1}};
    EXPECT_FALSE(open());
    EXPECT_EQ(callsOf(write), notOpen);
    EXPECT_TRUE(device->open(1, true, 2));
    EXPECT_EQ(callsOf(open), "\na/a log 3 The device is already open!\na/ = 0\n");
    EXPECT_EQ(outcome(write), "write 50 72:000000000001; = 1") << "in the mode of before";
    m_answers = {{"system", -1, 10}};
    EXPECT_EQ(outcome(close), "close 50; " + down);
    EXPECT_EQ(callsOf(write), notOpen);
    EXPECT_TRUE(open());
    EXPECT_EQ(outcome(write), "write 50 16:; = 1");
    EXPECT_EQ(callsOf([&] { return device.reset(), 0; }), "\n/ = 0\n") << "it closes nothing";
    ::close(50);
}

TEST_F(HandleTest, NamesThatAShellCouldMisreadRunNoCommand) {
    for (const std::string name : {"-can0", "can0;reboot", "can 0", "c/n", "c:n", "c@n", "c[n",
                                   "c`n", "c{n", "c\xC3\xA4n0", "can4567890123456"}) {
        const auto device = handle(name);
        const std::string refused = "log 4 interface name refused:" + name + "; = 0";
        EXPECT_EQ(outcome([&] { return device->open(1, false, 1); }), refused);
        EXPECT_EQ(outcome([&] { return device->close(), 0; }), refused);
    }
    for (const char* const name : {"", "can456789012345", "a-Z.9_z0A"}) {
        const auto device = handle(name);
        const std::string opened = callsOf([&] { return device->open(1, false, 1); });
        EXPECT_NE(opened.find(std::string("INDEX ") + name + '\n'), std::string::npos);
        device->close();
    }
}

TEST_F(HandleTest, DescriptorsThatAreNotOpenFailAtOnce) {
    IInterface::DeviceDesc desc;
    for (const int fd : {-1, -2000, 40, 1024}) {
        desc.fd = fd;
        EXPECT_EQ(outcome([&] { return driver->readMessage(desc, msg, false, 60000); }),
                  "log 4 select() error: Bad file descriptor; = 0");
        EXPECT_EQ(outcome([&] { return driver->writeMessage(desc, msg, false); }),
                  "write " + std::to_string(fd) +
                      " 16:; log 4 write error:Bad file descriptor(errno=9); = 0");
    }
    desc.fd = 0;
    m_answers = {{"select 0", 0}};
    EXPECT_FALSE(driver->readMessage(desc, msg, false, 1));
    EXPECT_TRUE(m_answers.empty()) << "not waited for";
}
