#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <future>
#include <mutex>

#include "support.h"

using corvel::IDriver;
using corvel::IInterface;
using std::chrono::milliseconds;

// Notes what it is asked, answers as told, and can be made to wait inside a read.
class FakeDriver final : public IDriver {
public:
    bool scanDevices(std::vector<std::shared_ptr<IInterface>>&) override { return false; }
    std::shared_ptr<IInterface> getDeviceByIndex(
        unsigned int, const std::vector<std::shared_ptr<IInterface>>&) override {
        return nullptr;
    }
    bool open(IInterface::DeviceDesc& desc, unsigned int bitrate, bool canFd,
              unsigned int dbitrate) override {
        note("open " + std::to_string(bitrate) + (canFd ? " fd " : " classic ") +
             std::to_string(dbitrate));
        if (m_answer) desc.fd = 7;
        return m_answer;
    }
    void close(IInterface::DeviceDesc& desc) override {
        note("close " + std::to_string(desc.fd));
        desc.fd = -1;
    }
    bool readMessage(const IInterface::DeviceDesc& desc, _corvel_CanMsg&, bool canFd,
                     unsigned int timeout) override {
        std::unique_lock<std::mutex> lock(m_mutex);
        ++m_readers;
        m_changed.notify_all();
        m_changed.wait(lock, [&] { return !m_holdReads; });
        lock.unlock();
        note("read " + std::to_string(desc.fd) + (canFd ? " fd " : " classic ") +
             std::to_string(timeout));
        return m_answer;
    }
    bool writeMessage(const IInterface::DeviceDesc& desc, const _corvel_CanMsg&,
                      bool canFd) override {
        note("write " + std::to_string(desc.fd) + (canFd ? " fd" : " classic"));
        return m_answer;
    }

    void holdReads(bool hold) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_holdReads = hold;
        m_changed.notify_all();
    }
    // How many reads have come in, after waiting for at least `count`, or for `patience`.
    int readers(int count, milliseconds patience = milliseconds(5000)) {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait_for(lock, patience, [&] { return m_readers >= count; });
        return m_readers;
    }
    std::vector<std::string> takeNotes() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return std::exchange(m_notes, {});
    }
    bool m_answer = true;

private:
    void note(const std::string& what) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_notes.push_back(what);
    }
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<std::string> m_notes;
    bool m_holdReads = false;
    int m_readers = 0;
};

using Notes = std::vector<std::string>;

class InterfaceTest : public CorvelTest {
protected:
    const std::shared_ptr<FakeDriver> m_driver = std::make_shared<FakeDriver>();
    IInterface m_device{m_driver, {}};
    _corvel_CanMsg m_msg{};
};

TEST_F(InterfaceTest, FollowsItsStates) {
    const Log closedWrite{{4, "Failed to write, isOpen:0 fd:-1 handle:0"}};
    EXPECT_FALSE(m_device.readMessage(m_msg, 60000));
    EXPECT_EQ(takeLog(), Log{});
    EXPECT_FALSE(m_device.writeMessage(m_msg));
    EXPECT_EQ(takeLog(), closedWrite);
    m_device.close();
    EXPECT_EQ(m_driver->takeNotes(), Notes{"close -1"});

    m_driver->m_answer = false;
    EXPECT_FALSE(m_device.open(1, false, 2));
    EXPECT_FALSE(m_device.writeMessage(m_msg));
    EXPECT_EQ(takeLog(), closedWrite);
    m_driver->m_answer = true;
    EXPECT_TRUE(m_device.open(500000, true, 2000000));
    EXPECT_FALSE(m_device.open(1, false, 2));
    EXPECT_EQ(takeLog(), (Log{{3, "The device is already open!"}}));
    EXPECT_TRUE(m_device.writeMessage(m_msg));
    m_driver->m_answer = false;
    EXPECT_FALSE(m_device.readMessage(m_msg, 250));
    EXPECT_FALSE(m_device.writeMessage(m_msg));
    m_device.close();
    EXPECT_FALSE(m_device.writeMessage(m_msg));
    EXPECT_EQ(takeLog(), closedWrite);
    m_driver->m_answer = true;
    EXPECT_TRUE(m_device.open(3, false, 4));
    EXPECT_TRUE(m_device.readMessage(m_msg, 0));
    m_device.close();
    EXPECT_EQ(m_driver->takeNotes(),
              (Notes{"open 1 classic 2", "open 500000 fd 2000000", "write 7 fd", "read 7 fd 250",
                     "write 7 fd", "close 7", "open 3 classic 4", "read 7 classic 0", "close 7"}));
}

TEST_F(InterfaceTest, AReadThatWaitsHoldsUpOnlyOtherReads) {
    ASSERT_TRUE(m_device.open(1, false, 2));
    m_driver->holdReads(true);
    const auto read = [&] {
        _corvel_CanMsg msg;
        return m_device.readMessage(msg, 60000);
    };
    auto first = std::async(std::launch::async, read);
    ASSERT_EQ(m_driver->readers(1), 1);
    auto second = std::async(std::launch::async, read);
    EXPECT_EQ(m_driver->readers(2, milliseconds(100)), 1) << "the second read waits its turn";
    EXPECT_TRUE(m_device.writeMessage(m_msg));
    m_device.close();
    EXPECT_TRUE(m_device.open(3, true, 4));
    EXPECT_TRUE(m_device.writeMessage(m_msg));
    EXPECT_EQ(m_driver->takeNotes().size(), 5u) << "all of it while the first read waits";
    m_driver->holdReads(false);
    EXPECT_TRUE(first.get());
    EXPECT_TRUE(second.get());
    EXPECT_EQ(m_driver->takeNotes(), (Notes{"read 7 classic 60000", "read 7 classic 60000"}))
        << "calls of the old opening keep its descriptor and mode";
    m_device.close();
}
