#ifndef CORVEL_IINTERFACE_H
#define CORVEL_IINTERFACE_H

#include <memory>
#include <mutex>
#include <string>

#include "tn_corvel.h"

namespace corvel {

class IDriver;

/// One CAN device: its descriptor, the driver that serves it, and whether it is open.
///
/// Any thread may call any operation. At most one read and one write run at a time. They do not
/// block each other, open() or close(). Those two wait for each other, and reads and writes that
/// begin meanwhile wait for them. A driver's scan makes the handles. Destroying a handle does not
/// close the device.
class CORVEL_API IInterface : public std::enable_shared_from_this<IInterface> {
public:
    /// Which network interface a device is, and the socket that serves it while it is open.
    struct DeviceDesc {
        int ifindex = -1;        ///< the kernel's interface index when the device was listed
        int fd = -1;             ///< file descriptor of the open device, or -1
        std::string name;        ///< interface name, such as can0
        void* handle = nullptr;  ///< for the driver's use; see IDriver::close for its lifetime
    };

    /// A closed device. Shares the driver, which must not be empty, and copies the descriptor.
    IInterface(const std::shared_ptr<IDriver>& driver, const DeviceDesc& desc);
    IInterface(const IInterface&) = delete;
    IInterface& operator=(const IInterface&) = delete;

    /// The name of the network interface. It never changes.
    const std::string& name() const { return m_desc.name; }

    /// Configures and opens the device; rates in bit/s. False when that fails or it is open
    /// already.
    bool open(unsigned int bitrate, bool canFd, unsigned int dbitrate);

    /// Closes the device, open or not. Does not wait for a read or write in progress, whose
    /// descriptor is not reused before it has returned.
    void close();

    /// Waits at most `timeout` ms (0: polls) for one frame and stores it in `msg`, which is left
    /// alone when the result is false. False at once when the device is closed.
    bool readMessage(_corvel_CanMsg& msg, unsigned int timeout);

    /// Sends one frame. False when that fails or the device is closed.
    bool writeMessage(const _corvel_CanMsg& msg);

private:
    struct Session;

    std::shared_ptr<IDriver> m_driver;
    DeviceDesc m_desc;
    bool m_isOpen = false;
    bool m_canFd = false;
    std::mutex m_stateMutex;  // guards m_desc, m_isOpen, m_canFd and m_session
    std::mutex m_readMutex;   // one read at a time
    std::mutex m_writeMutex;  // one write at a time
    std::shared_ptr<Session> m_session;
};

}  // namespace corvel

#endif
