#include "corvel/iinterface.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <utility>

#include "corvel/idriver.h"
#include "log.h"

namespace corvel {
namespace {

// Calls that are still running use the number of `fd`, so nothing else may get it: the socket moves
// to another number, for the driver to close, and an unconnected socket takes the old one: on it,
// select returns at once and every read and write fails. Returns the number that is occupied now,
// or -1 when there is no descriptor to spare; then `fd` is left alone.
int reserveNumber(int& fd) {
    const int copy = ::fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    if (copy < 0) return -1;
    const int dead = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const bool isReserved = dead >= 0 && ::dup3(dead, fd, O_CLOEXEC) >= 0;
    if (dead >= 0) ::close(dead);
    if (isReserved) return std::exchange(fd, copy);
    ::close(copy);
    return -1;
}

}  // namespace

// Shared by an open handle and every call that is using its descriptor. The last of them to go
// frees the number that a close reserved.
struct IInterface::Session {
    int reserved = -1;

    ~Session() {
        if (reserved != -1) ::close(reserved);
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
    m_session = std::make_shared<Session>();
    m_isOpen = m_driver->open(m_desc, bitrate, canFd, dbitrate);
    return m_isOpen;
}

void IInterface::close() {
    std::lock_guard<std::mutex> lock(m_stateMutex);
    if (m_session.use_count() > 1) m_session->reserved = reserveNumber(m_desc.fd);
    m_session.reset();
    m_driver->close(m_desc);
    m_isOpen = false;
}

bool IInterface::readMessage(_corvel_CanMsg& msg, unsigned int timeout) {
    std::unique_lock<std::mutex> state(m_stateMutex);
    if (!m_isOpen) return false;
    const std::shared_ptr<const Session> session = m_session;
    const DeviceDesc desc = m_desc;
    const bool canFd = m_canFd;
    state.unlock();
    std::lock_guard<std::mutex> lock(m_readMutex);
    return m_driver->readMessage(desc, msg, canFd, timeout);
}

bool IInterface::writeMessage(const _corvel_CanMsg& msg) {
    std::unique_lock<std::mutex> state(m_stateMutex);
    if (!m_isOpen) {
        return CORVEL_FAIL("Failed to write, isOpen:", m_isOpen, " fd:", m_desc.fd,
                           " handle:", m_desc.handle);
    }
    const std::shared_ptr<const Session> session = m_session;
    const DeviceDesc desc = m_desc;
    const bool canFd = m_canFd;
    state.unlock();
    std::lock_guard<std::mutex> lock(m_writeMutex);
    return m_driver->writeMessage(desc, msg, canFd);
}

}  // namespace corvel
