// libFuzzer target: any datagram, read as a frame. What the record must hold follows from the
// kernel's frame layout; the guard bytes around it must stay. The log is best
// thrown away: -close_fd_mask=2

#include <sys/socket.h>

#include <cstdlib>
#include <cstring>

#include "driverforsocketcan.h"

static void require(bool condition) {
    if (!condition) abort();
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static int ends[2];
    [[maybe_unused]] static const int once = socketpair(AF_UNIX, SOCK_DGRAM, 0, ends);
    static corvel::DriverForSocketCan driver;
    corvel::IInterface::DeviceDesc desc;
    desc.fd = ends[0];

    struct {
        uint8_t before[64];
        _corvel_CanMsg msg;
        uint8_t after[64];
    } got, expected;
    memset(&got, 0xA5, sizeof got);
    memset(&expected, 0xA5, sizeof expected);

    if (size > 72) size = 72;
    require(send(ends[1], data, size, 0) == static_cast<ssize_t>(size));
    const bool read = driver.readMessage(desc, got.msg, size % 2 != 0, 1000);

    const bool valid = size == 16 || (size == 72 && data[4] <= 8);
    require(read == valid);
    if (valid) {
        memcpy(&expected.msg.id, data, 4);
        expected.msg.len = data[4] > 8 ? 8 : data[4];
        memcpy(expected.msg.data, data + 8, expected.msg.len);
        expected.msg.extended = data[3] >> 7;
        expected.msg.remote = (data[3] >> 6) & 1;
    }
    require(memcmp(&got, &expected, sizeof got) == 0);
    return 0;
}
