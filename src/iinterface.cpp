#include "corvel/iinterface.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <utility>

#include "corvel/idriver.h"
#include "log.h"

namespace corvel {

CORVEL_COLD static bool logClosedWrite(bool isOpen, const IInterface::DeviceDesc& desc) {
    CORVEL_LOG(failure) << "Failed to write, isOpen:" << isOpen << " fd:" << desc.fd
                        << " handle:" << desc.handle;
    return false;
}

// One opening of the device, shared by the handle while it is open and by every call that is using
// it: the descriptor and mode that such a call works with. Whoever drops the last share gives back
// the descriptor's number that a close has left behind, if any.
struct IInterface::Opening {
    DeviceDesc desc;
    bool canFd;
    int number = -1;

    Opening(const DeviceDesc& openedDesc, bool openedCanFd)
        : desc(openedDesc), canFd(openedCanFd) {}
    Opening(const Opening&) = delete;
    Opening& operator=(const Opening&) = delete;
    ~Opening() {
        if (number != -1) ::close(number);
    }

    // Moves the file to a new descriptor, for the driver to close, and keeps the old number taken
    // by a file on which no select waits and every read and write fails: a socket that is connected
    // to nothing. Without descriptors to spare `fd` stays as it is.
    void retire(int& fd) {
        const int dead = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const int moved = dead < 0 ? -1 : ::fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
        if (moved >= 0) {
            ::dup3(dead, fd, O_CLOEXEC);
            number = fd;
            fd = moved;
        }
        if (dead >= 0) ::close(dead);
    }
};

IInterface::IInterface(const std::shared_ptr<IDriver>& driver, const DeviceDesc& desc)
    : m_driver(driver), m_desc(desc) {}

bool IInterface::open(unsigned int bitrate, bool canFd, unsigned int dbitrate) {
    std::lock_guard<std::mutex> lock(m_stateMutex);
    if (m_isOpen) {
        CORVEL_LOG(refusal) << "The device is already open!";
        return false;
    }
    m_canFd = canFd;
    m_opening = std::make_shared<Opening>(m_desc, m_canFd);  // now, since nothing may fail later
    m_isOpen = m_driver->open(m_desc, bitrate, canFd, dbitrate);
    m_opening->desc = m_desc;  // its name is there already, so this takes no memory
    return m_isOpen;
}

void IInterface::close() {
    std::lock_guard<std::mutex> lock(m_stateMutex);
    m_isOpen = false;  // first, so that it holds even when the driver throws
    std::shared_ptr<Opening> opening = std::move(m_opening);
    // Calls in progress use the number; no new ones can begin.
    if (opening.use_count() > 1) opening->retire(m_desc.fd);
    m_driver->close(m_desc);
}

bool IInterface::readMessage(_corvel_CanMsg& msg, unsigned int timeout) {
    std::shared_ptr<const Opening> opening;
    {
        std::lock_guard<std::mutex> lock(m_stateMutex);
        if (!m_isOpen) return false;
        opening = m_opening;
    }
    std::lock_guard<std::mutex> lock(m_readMutex);
    return m_driver->readMessage(opening->desc, msg, opening->canFd, timeout);
}

bool IInterface::writeMessage(const _corvel_CanMsg& msg) {
    std::shared_ptr<const Opening> opening;
    {
        std::lock_guard<std::mutex> lock(m_stateMutex);
        if (!m_isOpen) return logClosedWrite(m_isOpen, m_desc);
        opening = m_opening;
    }
    std::lock_guard<std::mutex> lock(m_writeMutex);
    return m_driver->writeMessage(opening->desc, msg, opening->canFd);
}

}  // namespace corvel
