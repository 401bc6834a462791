// libFuzzer target: any datagram, read as a frame. The log is best thrown away: -close_fd_mask=2

#include <linux/can.h>
#include <sys/socket.h>

#include <cstdlib>
#include <cstring>

#include "corvel/driverforsocketcan.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static int ends[2];
    [[maybe_unused]] static const int once = socketpair(AF_UNIX, SOCK_DGRAM, 0, ends);
    static corvel::DriverForSocketCan driver;
    corvel::IInterface::DeviceDesc desc;
    desc.fd = ends[0];
    _corvel_CanMsg msg;
    memset(&msg, 0xA5, sizeof msg);
    if (send(ends[1], data, size, 0) != static_cast<ssize_t>(size)) abort();
    const bool fits = size == CAN_MTU || (size >= CANFD_MTU && data[4] <= 8);
    if (driver.readMessage(desc, msg, size % 2 != 0, 1000) != fits) abort();
    if (fits ? msg.len > 8 : msg.len != 0xA5) abort();
    return 0;
}
