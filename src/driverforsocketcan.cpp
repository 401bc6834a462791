#include "corvel/driverforsocketcan.h"

#include <fcntl.h>
#include <linux/can.h>
#include <linux/can/raw.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <netlink/errno.h>
#include <netlink/netlink.h>
#include <netlink/route/link.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "log.h"

namespace corvel {
namespace {

// The part of a sockaddr_can that raw sockets use. Newer kernel headers append more to it.
constexpr socklen_t addressLength = 16;

struct NetlinkSocketDeleter {
    void operator()(nl_sock* socket) const {
        ::nl_close(socket);
        ::nl_socket_free(socket);
    }
};

struct CacheDeleter {
    void operator()(nl_cache* cache) const { ::nl_cache_free(cache); }
};

void closeSocket(int& fd) {
    if (fd != -1) ::close(fd);
    fd = -1;
}

// Closes a new socket unless opening succeeds, exceptions included.
struct CloseUnlessReady {
    int& fd;
    bool isReady = false;

    ~CloseUnlessReady() {
        if (!isReady) closeSocket(fd);
    }
};

// Refuses a name that a shell could misread, or that is longer than interface names are.
bool checkName(const std::string& name) {
    const auto allowed = [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
               c == '.' || c == '_' || c == '-';
    };
    if (name.size() >= IFNAMSIZ || name[0] == '-' ||
        !std::all_of(name.begin(), name.end(), allowed)) {
        return CORVEL_FAIL("interface name refused:", name);
    }
    return true;
}

bool runCommand(const DriverForSocketCan& driver, const std::string& command) {
    int exitCode = -1;
    if (driver.systemExecute(command, exitCode)) return true;
    return CORVEL_FAIL("error execute system cmd, error:", exitCode);
}

int bindTo(int fd, int ifindex) {
    sockaddr_can address{};
    address.can_family = AF_CAN;
    address.can_ifindex = ifindex;
    return ::bind(fd, reinterpret_cast<const sockaddr*>(&address), addressLength);
}

bool bindSocket(int fd, const std::string& name) {
    ifreq request{};
    name.copy(request.ifr_name, IFNAMSIZ - 1);
    if (::ioctl(fd, SIOCGIFINDEX, &request) < 0) {
        return CORVEL_FAIL("error reading index of ", name, ": ", std::strerror(errno));
    }
    if (bindTo(fd, request.ifr_ifindex) < 0) return CORVEL_FAIL("Error in socket bind");
    return true;
}

// Ends reads that wait on a socket whose link was down before; the socket is closed next. The
// kernel reports a link that is down when a socket is bound to it, but ignores a bind to the same
// interface as before. So the socket is bound to all interfaces in between, with a filter that
// passes none of their frames. A link that is up still reports its going down afterwards.
void wakeReads(int fd) {
    sockaddr_can address{};
    socklen_t length = addressLength;
    if (::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) return;
    if (address.can_family != AF_CAN || address.can_ifindex == 0) return;  // 0: adapter removed
    const can_filter nothing{};
    if (::setsockopt(fd, SOL_CAN_RAW, CAN_RAW_FILTER, &nothing, 0) != 0) return;
    if (bindTo(fd, 0) == 0) bindTo(fd, address.can_ifindex);  // fails if the adapter is gone by now
}

// Moves `fd` above the standard streams, so that nothing that is printed goes onto the bus.
// Negative on failure.
int keepStandardStreamsFree(int fd) {
    if (fd < 0 || fd > STDERR_FILENO) return fd;
    const int moved = ::fcntl(fd, F_DUPFD, STDERR_FILENO + 1);
    ::close(fd);
    return moved;
}

bool enableCanFd(int fd) {
    const int on = 1;
    if (::setsockopt(fd, SOL_CAN_RAW, CAN_RAW_FD_FRAMES, &on, sizeof on) == 0) return true;
    return CORVEL_FAIL("Error set CanFD");
}

// Waits for a descriptor that an fd_set cannot hold, with the results of select.
int waitWithPoll(int fd, unsigned int timeout) {
    const timespec limit{static_cast<time_t>(timeout / 1000),
                         static_cast<long>(timeout % 1000) * 1000000};
    pollfd waiting{fd, POLLIN, 0};
    const int ready = ::ppoll(&waiting, 1, &limit, nullptr);
    if (ready > 0 && (waiting.revents & POLLNVAL) != 0) {
        errno = EBADF;
        return -1;
    }
    return ready;
}

// Above 0 when `fd` is readable, 0 when the time-out in milliseconds has passed, below 0 with errno
// set when waiting failed.
int waitReadable(int fd, unsigned int timeout) {
    if (fd < 0) {
        errno = EBADF;
        return -1;
    }
    if (fd >= FD_SETSIZE) return waitWithPoll(fd, timeout);
    timeval limit{static_cast<time_t>(timeout / 1000),
                  static_cast<suseconds_t>(timeout % 1000) * 1000};
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(fd, &readable);
    return ::select(fd + 1, &readable, nullptr, nullptr, &limit);
}

template <typename Frame>
bool writeFrame(int fd, const Frame& frame) {
    if (::write(fd, &frame, sizeof frame) == static_cast<ssize_t>(sizeof frame)) return true;
    const int error = errno;
    return CORVEL_FAIL("write error:", std::strerror(error), "(errno=", error, ")");
}

}  // namespace

bool DriverForSocketCan::scanDevices(std::vector<std::shared_ptr<IInterface>>& devices) {
    const std::unique_ptr<nl_sock, NetlinkSocketDeleter> socket(::nl_socket_alloc());
    nl_cache* links = nullptr;
    int error = -NLE_NOMEM;
    if (socket) {
        ::nl_connect(socket.get(), NETLINK_ROUTE);  // a failure shows in the next call
        error = ::rtnl_link_alloc_cache(socket.get(), AF_UNSPEC, &links);
    }
    if (error < 0) {
        return CORVEL_FAIL("could not access netlink device list, error code:", error);
    }
    const std::unique_ptr<nl_cache, CacheDeleter> cache(links);
    for (nl_object* entry = ::nl_cache_get_first(links); entry != nullptr;
         entry = ::nl_cache_get_next(entry)) {
        auto* const link = reinterpret_cast<rtnl_link*>(entry);
        if (::rtnl_link_get_arptype(link) != ARPHRD_CAN) continue;
        IInterface::DeviceDesc desc;
        desc.ifindex = ::rtnl_link_get_ifindex(link);
        const char* const name = ::rtnl_link_get_name(link);
        if (name != nullptr) desc.name = name;
        devices.push_back(std::make_shared<IInterface>(shared_from_this(), desc));
    }
    return true;
}

std::shared_ptr<IInterface> DriverForSocketCan::getDeviceByIndex(
    unsigned int index, const std::vector<std::shared_ptr<IInterface>>& devices) {
    const std::string name = "can" + std::to_string(index);
    for (const auto& device : devices) {
        if (device->name() == name) return device;
    }
    return nullptr;
}

bool DriverForSocketCan::systemExecute(const std::string& command, int& exitCode) const {
    exitCode = -1;
    const int status = ::system(command.c_str());
    if (status == -1) {
        const int error = errno;
        return CORVEL_FAIL("system() failed, errno: ", error, " (", std::strerror(error), ")");
    }
    if (WIFEXITED(status)) {
        exitCode = WEXITSTATUS(status);
        if (exitCode == 0) return true;
        return CORVEL_FAIL("Command returned non-zero exit code: ", exitCode);
    }
    if (WIFSIGNALED(status)) {
        return CORVEL_FAIL("Command terminated by signal: ", WTERMSIG(status));
    }
    return CORVEL_FAIL("Command did not exit normally.\n");
}

bool DriverForSocketCan::open(IInterface::DeviceDesc& desc, unsigned int bitrate, bool canFd,
                              unsigned int dbitrate) {
    if (!checkName(desc.name)) return false;

    const std::string link = "sudo ip link set " + desc.name;
    std::string up = link + " up type can bitrate " + std::to_string(bitrate);
    if (canFd) {
        up += " sample-point 0.75 dbitrate " + std::to_string(dbitrate) +
              " sample-point 0.75 restart-ms 0 fd on";
    } else {
        up += " sample-point 0.875 restart-ms 0";
    }
    CORVEL_LOG(progress, up);
    if (!runCommand(*this, up)) return false;
    if (!runCommand(*this, link + (canFd ? " txqueuelen 10000" : " txqueuelen 2000"))) return false;

    desc.fd = ::socket(PF_CAN, SOCK_RAW, CAN_RAW);
    desc.fd = keepStandardStreamsFree(desc.fd);
    if (desc.fd < 0) return CORVEL_FAIL("error while opening socket");
    CloseUnlessReady socket{desc.fd};
    ::fcntl(desc.fd, F_SETFD, FD_CLOEXEC);  // programs the application starts stay off the bus
    socket.isReady = bindSocket(desc.fd, desc.name) && (!canFd || enableCanFd(desc.fd));
    return socket.isReady;
}

void DriverForSocketCan::close(IInterface::DeviceDesc& desc) {
    wakeReads(desc.fd);
    closeSocket(desc.fd);
    if (!checkName(desc.name)) return;
    const std::string down = "sudo ip link set " + desc.name + " down";
    CORVEL_LOG(progress, down);
    [[maybe_unused]] const int ignored = ::system(down.c_str());
}

bool DriverForSocketCan::writeMessage(const IInterface::DeviceDesc& desc, const _corvel_CanMsg& msg,
                                      bool canFd) {
    const canid_t id = msg.id | (msg.extended != 0 ? CAN_EFF_FLAG : 0);
    if (!canFd) {
        can_frame frame{};
        frame.can_id = id | (msg.remote != 0 ? CAN_RTR_FLAG : 0);
        frame.can_dlc = std::min<uint8_t>(msg.len, CAN_MAX_DLEN);
        std::memcpy(frame.data, msg.data, frame.can_dlc);
        return writeFrame(desc.fd, frame);
    }
    if (msg.remote != 0) return CORVEL_FAIL("CAN FD does not support remote frames");
    if (msg.len > sizeof msg.data) {
        return CORVEL_FAIL("CAN FD frame refused, len above 8:", int{msg.len});
    }
    canfd_frame frame{};
    frame.can_id = id;
    frame.len = msg.len;
    frame.flags = CANFD_BRS;
    std::memcpy(frame.data, msg.data, frame.len);
    return writeFrame(desc.fd, frame);
}

// The number of bytes read tells the format, in either mode: a classic frame has the layout of the
// first 16 bytes of a CAN FD frame.
bool DriverForSocketCan::readMessage(const IInterface::DeviceDesc& desc, _corvel_CanMsg& msg,
                                     bool /*canFd*/, unsigned int timeout) {
    const int ready = waitReadable(desc.fd, timeout);
    if (ready < 0) return CORVEL_FAIL("select() error: ", std::strerror(errno));
    if (ready == 0) return false;

    canfd_frame frame;
    const ssize_t size = ::read(desc.fd, &frame, sizeof frame);
    if (size < 0) return CORVEL_FAIL("read() error: ", std::strerror(errno));
    if (size != CAN_MTU && size != CANFD_MTU) {
        return CORVEL_FAIL("invalid CAN frame size: ", size);
    }
    const uint8_t len = size == CAN_MTU ? std::min<uint8_t>(frame.len, CAN_MAX_DLEN) : frame.len;
    if (len > sizeof msg.data) return CORVEL_FAIL("CAN FD frame dropped, len above 8:", int{len});
    msg.id = frame.can_id;
    msg.remote = (frame.can_id & CAN_RTR_FLAG) != 0;
    msg.extended = (frame.can_id & CAN_EFF_FLAG) != 0;
    msg.len = len;
    std::memcpy(msg.data, frame.data, len);
    return true;
}

}  // namespace corvel
