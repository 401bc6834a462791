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
    _corvel_CanMsg got, expected;
    memset(&got, 0xA5, sizeof got);
    memset(&expected, 0xA5, sizeof expected);
    if (send(ends[1], data, size, 0) != static_cast<ssize_t>(size)) abort();
    const bool fits = size == CAN_MTU || (size >= CANFD_MTU && data[4] <= 8);
    if (driver.readMessage(desc, got, size % 2 != 0, 1000) != fits) abort();
    if (fits) {
        memcpy(&expected.id, data, 4);
        expected.len = data[4] > 8 ? 8 : data[4];
        memcpy(expected.data, data + 8, expected.len);
        expected.extended = data[3] >> 7;
        expected.remote = (data[3] >> 6) & 1;
    }
    if (memcmp(&got, &expected, sizeof got) != 0) abort();
    return 0;
}
