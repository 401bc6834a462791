#ifndef CORVEL_IDRIVER_H
#define CORVEL_IDRIVER_H

#include <memory>
#include <vector>

#include "iinterface.h"
#include "tn_corvel.h"

namespace corvel {

/// A CAN back end: lists devices, picks one, opens and closes it, moves single frames.
///
/// A driver object is owned by a std::shared_ptr from the start, since every handle that it makes
/// shares it, and is destroyed through its concrete type. Operations for different devices may run
/// at the same time on different threads; so may, for one device, one readMessage, one writeMessage
/// and one open or close. Failures are reported as false and their reason is logged.
class CORVEL_API IDriver : public std::enable_shared_from_this<IDriver> {
public:
    /// Appends a new, unopened handle for every device of the machine to `devices`. False when they
    /// cannot be listed; a machine without devices is no failure.
    virtual bool scanDevices(std::vector<std::shared_ptr<IInterface>>& devices) = 0;

    /// The first of `devices` that has the number `index`, or an empty pointer.
    virtual std::shared_ptr<IInterface> getDeviceByIndex(
        unsigned int index, const std::vector<std::shared_ptr<IInterface>>& devices) = 0;

    /// Configures and opens a device, leaving its file descriptor in `desc.fd`. Rates in bit/s.
    virtual bool open(IInterface::DeviceDesc& desc, unsigned int bitrate, bool canFd,
                      unsigned int dbitrate) = 0;

    /// Closes `desc.fd` unless it is -1, sets it to -1, and shuts the device down. Its descriptor
    /// may be a duplicate of the one that open() left, when a read or write still uses that number.
    virtual void close(IInterface::DeviceDesc& desc) = 0;

    /// Waits at most `timeout` ms (0: polls) for one frame and stores it in `msg`, which is left
    /// alone when the result is false.
    virtual bool readMessage(const IInterface::DeviceDesc& desc, _corvel_CanMsg& msg, bool canFd,
                             unsigned int timeout) = 0;

    /// Sends one frame; true when all of it was written.
    virtual bool writeMessage(const IInterface::DeviceDesc& desc, const _corvel_CanMsg& msg,
                              bool canFd) = 0;

protected:
    ~IDriver() = default;
};

}  // namespace corvel

#endif
