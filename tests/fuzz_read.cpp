// libFuzzer target: any datagram, read as a frame. The log is best thrown away: -close_fd_mask=2

#include <sys/socket.h>

#include <cstdlib>

#include "driverforsocketcan.h"
#include "frame_layout.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static int ends[2];
    [[maybe_unused]] static const int once = socketpair(AF_UNIX, SOCK_DGRAM, 0, ends);
    static corvel::DriverForSocketCan driver;
    corvel::IInterface::DeviceDesc desc;
    desc.fd = ends[0];
    GuardedMsg got, expected;
    if (send(ends[1], data, size, 0) != static_cast<ssize_t>(size)) abort();
    const bool read = driver.readMessage(desc, got.msg, size % 2 != 0, 1000);
    if (read != expectedRead(data, size, expected.msg) || !(got == expected)) abort();
    return 0;
}
