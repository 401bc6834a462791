#include <future>
#include <mutex>

#include "support.h"

using corvel::IInterface;
using std::chrono::milliseconds;

// Notes what it is asked and answers as told. Reads wait for the gate, when there is one.
class FakeDriver final : public corvel::IDriver {
public:
    using Desc = IInterface::DeviceDesc;
    using Devices = std::vector<std::shared_ptr<IInterface>>;
    bool scanDevices(Devices&) override { return false; }
    std::shared_ptr<IInterface> getDeviceByIndex(unsigned, const Devices&) override { return {}; }
    bool open(Desc& desc, unsigned bitrate, bool canFd, unsigned dbitrate) override {
        desc.fd = m_answer ? 1048576 : -1;  // a number that no descriptor has
        return note("open", bitrate, canFd, dbitrate);
    }
    void close(Desc& desc) override { note("close", std::exchange(desc.fd, -1)); }
    bool readMessage(const Desc& desc, _corvel_CanMsg&, bool canFd, unsigned timeout) override {
        ++m_readers;
        if (m_gate.valid()) m_gate.wait();
        return note("read", desc.fd, canFd, timeout);
    }
    bool writeMessage(const Desc& desc, const _corvel_CanMsg&, bool canFd) override {
        return note("write", desc.fd, canFd);
    }

    Lines takeNotes() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return std::exchange(m_notes, {});
    }
    bool m_answer = true;
    std::atomic<int> m_readers{0};
    std::shared_future<void> m_gate;

private:
    template <typename... Numbers>
    bool note(std::string text, Numbers... numbers) {
        ((text += ' ' + std::to_string(numbers)), ...);
        std::lock_guard<std::mutex> lock(m_mutex);
        m_notes.push_back(text);
        return m_answer;
    }
    std::mutex m_mutex;
    Lines m_notes;
};

class InterfaceTest : public CorvelTest {
protected:
    void refusesToWrite() {
        EXPECT_FALSE(m_device.writeMessage(m_msg));
        EXPECT_EQ(takeLog(), (Log{{4, "Failed to write, isOpen:0 fd:-1 handle:0"}}));
    }
    const std::shared_ptr<FakeDriver> m_driver = std::make_shared<FakeDriver>();
    IInterface m_device{m_driver, {}};
    _corvel_CanMsg m_msg{};
};

TEST_F(InterfaceTest, FollowsItsStates) {
    EXPECT_FALSE(m_device.readMessage(m_msg, 60000));
    EXPECT_EQ(takeLog(), Log{});
    refusesToWrite();
    m_device.close();
    m_driver->m_answer = false;
    EXPECT_FALSE(m_device.open(1, false, 2));
    refusesToWrite();
    m_driver->m_answer = true;
    EXPECT_TRUE(m_device.open(500000, true, 2000000));
    EXPECT_FALSE(m_device.open(1, false, 2));
    EXPECT_EQ(takeLog(), (Log{{3, "The device is already open!"}}));
    EXPECT_TRUE(m_device.writeMessage(m_msg));
    m_driver->m_answer = false;
    EXPECT_FALSE(m_device.readMessage(m_msg, 250));
    m_device.close();
    refusesToWrite();
    m_driver->m_answer = true;
    EXPECT_TRUE(m_device.open(3, false, 4));
    EXPECT_TRUE(m_device.readMessage(m_msg, 0));
    m_device.close();
    EXPECT_EQ(m_driver->takeNotes(),
              (Lines{"close -1", "open 1 0 2", "open 500000 1 2000000", "write 1048576 1",
                     "read 1048576 1 250", "close 1048576", "open 3 0 4", "read 1048576 0 0",
                     "close 1048576"}));
}

TEST_F(InterfaceTest, AReadThatWaitsHoldsUpOnlyOtherReads) {
    std::promise<void> gate;
    m_driver->m_gate = gate.get_future();
    ASSERT_TRUE(m_device.open(1, false, 2));
    const auto read = [&] { return m_device.readMessage(m_msg, 60000); };
    auto first = std::async(std::launch::async, read),
         second = std::async(std::launch::async, read);
    EXPECT_EQ(second.wait_for(milliseconds(100)), std::future_status::timeout);
    EXPECT_EQ(m_driver->m_readers, 1) << "the other read waits its turn";
    EXPECT_TRUE(m_device.writeMessage(m_msg));
    m_device.close();
    EXPECT_TRUE(m_device.open(3, true, 4));
    EXPECT_TRUE(m_device.writeMessage(m_msg));
    EXPECT_EQ(m_driver->takeNotes().size(), 5u) << "all of it while a read waits";
    gate.set_value();
    EXPECT_TRUE(first.get() && second.get());
    EXPECT_EQ(m_driver->takeNotes(), Lines(2, "read 1048576 0 60000"))
        << "calls of the old opening keep its descriptor and mode";
    m_device.close();
}
