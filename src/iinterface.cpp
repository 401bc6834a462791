#include "corvel/iinterface.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <utility>

#include "corvel/idriver.h"
#include "log.h"

namespace corvel {

// The device from one open to its close, shared by the handle and by every call that is using it:
// the descriptor and mode that such a call works with. If a close meets calls in progress, their
// descriptor's number stays occupied until the last one ends.
struct IInterface::Session {
    DeviceDesc desc;
    bool canFd;
    int reserved = -1;

    Session(const DeviceDesc& openedDesc, bool openedCanFd)
        : desc(openedDesc), canFd(openedCanFd) {}
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;
    ~Session() {
        if (reserved != -1) ::close(reserved);
    }

    // Calls that are still running use the number of `fd`, so nobody else may get it:
    // 1. A copy of the socket gets another number, for the driver to close.
    // 2. A socket that is connected to nothing takes the old number. No select waits on it, and
    //    every read and write fails.
    // 3. The last of those calls closes that one, and the number is free.
    // Without descriptors to spare, `fd` stays as it is. So it does at or above a limit that was
    // lowered meanwhile, but no such number is handed out.
    void reserveNumber(int& fd) {
        const int dead = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (dead < 0) return;
        const int copy = ::fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
        if (copy >= 0) {
            if (::dup3(dead, fd, O_CLOEXEC) >= 0) {
                reserved = std::exchange(fd, copy);
            } else {
                ::close(copy);
            }
        }
        ::close(dead);
    }
};

IInterface::IInterface(const std::shared_ptr<IDriver>& driver, const DeviceDesc& desc)
    : m_driver(driver), m_desc(desc) {}

bool IInterface::open(unsigned int bitrate, bool canFd, unsigned int dbitrate) {
    std::lock_guard<std::mutex> lock(m_stateMutex);
    if (m_isOpen) {
        CORVEL_LOG(refusal, "The device is already open!");
        return false;
    }
    m_canFd = canFd;
    m_session = std::make_shared<Session>(m_desc, m_canFd);  // now, since nothing may fail later
    m_isOpen = m_driver->open(m_desc, bitrate, canFd, dbitrate);
    m_session->desc = m_desc;  // its name is there already, so this takes no memory
    return m_isOpen;
}

void IInterface::close() {
    std::lock_guard<std::mutex> lock(m_stateMutex);
    m_isOpen = false;  // first, so that it holds even when the driver throws
    // Calls in progress share the session, and no new ones can begin.
    const std::weak_ptr<Session> ended = m_session;
    m_session.reset();
    if (const auto shared = ended.lock()) shared->reserveNumber(m_desc.fd);
    m_driver->close(m_desc);
}

bool IInterface::readMessage(_corvel_CanMsg& msg, unsigned int timeout) {
    std::shared_ptr<const Session> session;
    {
        std::lock_guard<std::mutex> lock(m_stateMutex);
        if (!m_isOpen) return false;
        session = m_session;
    }
    std::lock_guard<std::mutex> lock(m_readMutex);
    return m_driver->readMessage(session->desc, msg, session->canFd, timeout);
}

bool IInterface::writeMessage(const _corvel_CanMsg& msg) {
    std::shared_ptr<const Session> session;
    {
        std::lock_guard<std::mutex> lock(m_stateMutex);
        if (!m_isOpen) {
            return CORVEL_FAIL("Failed to write, isOpen:", m_isOpen, " fd:", m_desc.fd,
                               " handle:", m_desc.handle);
        }
        session = m_session;
    }
    std::lock_guard<std::mutex> lock(m_writeMutex);
    return m_driver->writeMessage(session->desc, msg, session->canFd);
}

}  // namespace corvel
