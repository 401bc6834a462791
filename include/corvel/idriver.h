#ifndef CORVEL_IDRIVER_H
#define CORVEL_IDRIVER_H

#include <memory>
#include <vector>

#include "iinterface.h"
#include "tn_corvel.h"

namespace corvel {

/// A CAN back end: lists devices, picks one, opens and closes it, moves single frames.
///
/// A std::shared_ptr owns a driver from the start, shared by every handle, and destroys it by its
/// concrete type: there is no virtual destructor. Operations for different devices may run at the
/// same time on different threads; for one device, so may one readMessage, one writeMessage, and
/// one open or close. Failures are returned as false, and their reason is logged.
///
/// Do not add a virtual operation: it changes the layout that derived classes were compiled for.
class CORVEL_API IDriver : public std::enable_shared_from_this<IDriver> {
public:
    /// Appends a new, unopened handle for every device of the machine to `devices`. False when they
    /// cannot be listed; a machine without devices is no failure.
    virtual bool scanDevices(std::vector<std::shared_ptr<IInterface>>& devices) = 0;

    /// The first of `devices` that has the number `index`, or an empty pointer.
    virtual std::shared_ptr<IInterface> getDeviceByIndex(
        unsigned int index, const std::vector<std::shared_ptr<IInterface>>& devices) = 0;

    /// Configures and opens a device. `desc.fd` is then -1 or a file descriptor of its own, above 2
    /// and close-on-exec. Anything else belongs in `desc.handle`. Rates in bit/s.
    virtual bool open(IInterface::DeviceDesc& desc, unsigned int bitrate, bool canFd,
                      unsigned int dbitrate) = 0;

    /// Closes `desc.fd` unless it is -1, sets it to -1, and shuts the device down. Must also end
    /// reads and writes that wait. If there are any, `desc.fd` is a duplicate, and the number
    /// that they use stays reserved until they return. Nothing keeps `desc.handle` safe: a read or
    /// write that waits its turn still uses its copy after close() has returned. What it points to
    /// must stay valid until the last call that began before has ended.
    virtual void close(IInterface::DeviceDesc& desc) = 0;

    /// Waits at most `timeout` ms (0: polls) for one frame and stores it in `msg`. `msg` is left
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
