#ifndef CORVEL_DRIVERFORSOCKETCAN_H
#define CORVEL_DRIVERFORSOCKETCAN_H

#include <memory>
#include <string>
#include <vector>

#include "idriver.h"

namespace corvel {

/// The driver for Linux SocketCAN: lists links over netlink, configures them with `ip` under
/// `sudo`, and moves frames through raw CAN sockets. It has no state of its own. The
/// std::shared_ptr that owns an object destroys it as a DriverForSocketCan: there is no virtual
/// destructor.
class CORVEL_API DriverForSocketCan : public IDriver {
public:
    /// Lists every link of the CAN hardware type, whatever its name and state.
    bool scanDevices(std::vector<std::shared_ptr<IInterface>>& devices) override;

    /// Number N is the interface named "can" followed by N in decimal. Logs nothing.
    std::shared_ptr<IInterface> getDeviceByIndex(
        unsigned int index, const std::vector<std::shared_ptr<IInterface>>& devices) override;

    /// Brings the link up with the given timing, sets its transmit queue length and binds a raw CAN
    /// socket to it. On failure the socket is closed; commands that succeeded are not undone.
    /// Refuses a name that a shell could misread: over 15 characters, with other characters than
    /// letters, digits, '.', '_' and '-', or with '-' first.
    bool open(IInterface::DeviceDesc& desc, unsigned int bitrate, bool canFd,
              unsigned int dbitrate) override;

    /// Closes the socket and takes the link down; whether that succeeds is not checked. A read or
    /// write that waits on the socket returns once the link is down, or at once if it was down
    /// before. Runs no command for a name that open() refuses.
    void close(IInterface::DeviceDesc& desc) override;

    /// Accepts classic and CAN FD frames in either mode. A frame that does not fit the record is
    /// consumed, and false returned.
    bool readMessage(const IInterface::DeviceDesc& desc, _corvel_CanMsg& msg, bool canFd,
                     unsigned int timeout) override;

    /// Writes one classic frame, or in CAN FD mode one CAN FD frame with bit-rate switch. A record
    /// that does not fit such a frame is refused.
    bool writeMessage(const IInterface::DeviceDesc& desc, const _corvel_CanMsg& msg,
                      bool canFd) override;

    /// Runs a command line through the shell, unchanged, and waits for it to end. True when it
    /// exited with 0. `exitCode` receives its exit status, or -1 when it did not exit by itself.
    bool systemExecute(const std::string& command, int& exitCode) const;
};

}  // namespace corvel

#endif
