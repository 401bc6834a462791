// The class interface, where it shows what the exported functions do not.

#include <unistd.h>

#include <functional>
#include <memory>
#include <new>
#include <utility>

#include "recorder.h"

using corvel::IInterface;

using HandleTest = RecorderTest;

static const auto driver = std::make_shared<corvel::DriverForSocketCan>();
static std::shared_ptr<IInterface> handle(const std::string& name) {
    IInterface::DeviceDesc desc;
    desc.name = name;
    return std::make_shared<IInterface>(driver, desc);
}
static int close(IInterface& device) {
    device.close();
    return 0;
}
static _corvel_CanMsg msg{};

// A back end without file descriptors. Reads and writes succeed with what open() left.
class FakeDriver : public corvel::DriverForSocketCan {
public:
    bool open(IInterface::DeviceDesc& desc, unsigned, bool, unsigned) override {
        desc.handle = this;
        m_desc = &desc;
        return act();
    }
    void close(IInterface::DeviceDesc& desc) override {
        desc.handle = nullptr;
        act();
    }
    bool readMessage(const IInterface::DeviceDesc& desc, _corvel_CanMsg&, bool, unsigned) override {
        return act() && desc.handle == this;
    }
    bool writeMessage(const IInterface::DeviceDesc& desc, const _corvel_CanMsg&, bool) override {
        return act() && desc.handle == this;
    }
    std::function<void()> m_within;  // happens within the next operation
    IInterface::DeviceDesc* m_desc = nullptr;

private:
    bool act() {
        if (m_within) runWithin(std::exchange(m_within, nullptr));
        return true;
    }
};
static const auto fake = std::make_shared<FakeDriver>();

TEST_F(HandleTest, AScanAppendsCanLinksAndALookUpTakesTheFirstOfTheName) {
    m_links = {{280, "can10"}, {1, "can7"},   {280, "can01"}, {280, ""},    {280, "CAN1"},
               {281, "can8"},  {279, "can9"}, {280, "can1"},  {280, "can0"}};
    std::vector<std::shared_ptr<IInterface>> devices{handle("can0")};
    ASSERT_TRUE(fake->scanDevices(devices));
    std::string names;
    for (const auto& device : devices) names += device->name() + ' ';
    ASSERT_EQ(names, "can0 can10 can01  CAN1 can1 can0 ");
    EXPECT_EQ(driver->getDeviceByIndex(0, devices), devices[0]);
    EXPECT_EQ(driver->getDeviceByIndex(1, devices), devices[5]);
    EXPECT_EQ(driver->getDeviceByIndex(10, devices), devices[1]);
    EXPECT_EQ(driver->getDeviceByIndex(7, devices), nullptr);
    devices[5]->open(1, false, 2);
    EXPECT_EQ(fake->m_desc->ifindex, 8);
}

static std::string written(IInterface& device) {
    return outcome([&] { return device.writeMessage(msg); });
}
static std::string shut(IInterface& device) {
    return outcome([&] { return close(device); });
}
static const std::string down = "log 2 sudo ip link set can0 down; = 0";
static const std::string notOpen = "log 4 Failed to write, isOpen:0 fd:-1 handle:0; = 0";

TEST_F(HandleTest, AClosedDeviceIsReadAtOnceWithoutAMessage) {
    EXPECT_EQ(callsOf([] { return handle("can0")->readMessage(msg, 60000); }), "\n= 0\n");
}

TEST_F(HandleTest, ADeviceThatWasNotOpenedIsNotWrittenButClosed) {
    const auto device = handle("can0");
    m_answers = {{"bind", -1}};
    EXPECT_FALSE(device->open(1, false, 2));
    EXPECT_EQ(written(*device), notOpen);
    EXPECT_EQ(shut(*device), down);
}

TEST_F(HandleTest, ADeviceIsOpenedOnceAndAgainAfterItsClose) {
    auto device = handle("can0");
    EXPECT_TRUE(device->open(1, true, 2));
    EXPECT_EQ(outcome([&] { return device->open(1, false, 2); }),
              "log 3 The device is already open!; = 0");
    EXPECT_EQ(written(*device), "write 50 72:000000000001; = 1") << "the mode has changed";
    EXPECT_EQ(shut(*device), "close 50; " + down);
    EXPECT_EQ(written(*device), notOpen);
    EXPECT_TRUE(device->open(1, false, 2));
    EXPECT_EQ(written(*device), "write 50 16:; = 1");
    device.reset();
    EXPECT_EQ(::close(50), 0) << "the end of a handle closes nothing";
}

TEST_F(HandleTest, NamesThatAShellCouldMisreadRunNoCommand) {
    for (const std::string name : {"-can0", "can0;reboot", "can 0", "c/n", "c:n", "c@n", "c[n",
                                   "c`n", "c{n", "c\xC3\xA4n0", "can4567890123456"}) {
        const auto device = handle(name);
        const std::string refused = "log 4 interface name refused:" + name + "; = 0";
        EXPECT_EQ(outcome([&] { return device->open(1, false, 1); }), refused);
        EXPECT_EQ(outcome([&] { return close(*device); }), refused);
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
    }
    const std::string failed = "log 4 write error:Bad file descriptor(errno=9); = 0";
    EXPECT_EQ(outcome([&] { return driver->writeMessage(desc, msg, false); }),
              "write 1024 16:; " + failed);
    desc.fd = 0;
    m_answers = {{"select 0", 0}};
    EXPECT_FALSE(driver->readMessage(desc, msg, false, 1));
    EXPECT_TRUE(m_answers.empty()) << "not waited for";
}

TEST_F(HandleTest, ADriverThatThrowsLeavesNoLockHeldAndTheStateAsItWas) {
    const auto fail = [] { throw std::bad_alloc(); };
    IInterface device(fake, {});
    fake->m_within = fail;
    EXPECT_THROW(device.open(1, false, 2), std::bad_alloc);
    EXPECT_FALSE(device.readMessage(msg, 0));
    EXPECT_TRUE(device.open(1, false, 2));
    fake->m_within = fail;
    EXPECT_THROW(device.readMessage(msg, 0), std::bad_alloc);
    EXPECT_TRUE(device.readMessage(msg, 0));
    fake->m_within = fail;
    EXPECT_THROW(device.close(), std::bad_alloc);
    EXPECT_FALSE(device.open(1, false, 2));
    device.close();
    EXPECT_TRUE(device.open(1, false, 2));
}

TEST_F(HandleTest, ReadsAndWritesUseTheDescriptorAsItIsWhenTheyBegin) {
    IInterface device(fake, {});
    ASSERT_TRUE(device.open(1, false, 2));
    fake->m_within = [&] { device.close(); };
    EXPECT_TRUE(device.readMessage(msg, 0));
    ASSERT_TRUE(device.open(1, false, 2));
    fake->m_desc->handle = nullptr;
    EXPECT_FALSE(device.readMessage(msg, 0));
    EXPECT_FALSE(device.writeMessage(msg));
}

TEST_F(HandleTest, ASlowReadBlocksReadsAlone) {
    IInterface device(fake, {});
    ASSERT_TRUE(device.open(1, false, 2));
    fake->m_within = [&] {
        EXPECT_TRUE(device.writeMessage(msg));
        EXPECT_THROW(device.readMessage(msg, 0), std::system_error);
        EXPECT_FALSE(device.open(1, false, 2));
        device.close();
        EXPECT_TRUE(device.open(1, false, 2));
    };
    EXPECT_TRUE(device.readMessage(msg, 0));
}

TEST_F(HandleTest, CallsWaitForAnOpenOrCloseThatRuns) {
    IInterface device(fake, {});
    const auto wait = [&] { EXPECT_THROW(device.readMessage(msg, 0), std::system_error); };
    fake->m_within = wait;
    EXPECT_TRUE(device.open(1, false, 2));
    fake->m_within = wait;
    device.close();
}
