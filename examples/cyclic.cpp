// Sends a frame every 10 ms and counts those that arrive, until interrupted: cyclic N
// N is the number of the interface. While no other adapter acknowledges, a write may wait without
// limit. So a thread of its own writes, and the main thread only waits for a signal: the release of
// the adapter then ends the write.

#include <algorithm>
#include <cstdio>
#include <exception>
#include <optional>

#include "adapter.hpp"
#include "arguments.h"
#include "end_signals.h"
#include "worker.hpp"

using Clock = std::chrono::steady_clock;

static void sendFrames(int device) {
    const _corvel_CanMsg msg = {0x123, {0x11, 0x22}, 2, {}, 0, 0};
    unsigned long written = 0;
    for (auto next = Clock::now();; std::this_thread::sleep_until(next)) {
        const int32_t status = corvel_writeMessage(device, &msg);
        if (status == CORVEL_NO_DEVICE) break;
        if (status == CORVEL_SUCCESS) written++;
        next = std::max(next + std::chrono::milliseconds(10), Clock::now());
    }
    std::printf("%lu frames written\n", written);
}

static void countFrames(int device) {
    unsigned long read = 0;
    for (_corvel_CanMsg msg;;) {
        const int32_t status = corvel_readMessage(device, &msg, 60000);
        if (status == CORVEL_NO_DEVICE) break;
        if (status == CORVEL_SUCCESS) read++;
    }
    std::printf("%lu frames read\n", read);
}

int main(int count, char** arguments) try {
    uint32_t number;
    readNumbers("usage: cyclic N    number of a CAN interface\n", count, arguments, 1, 1, &number);
    const int device = static_cast<int>(number);
    holdSignals();  // in all threads; the main thread takes them with sigwait

    std::optional<Worker> sender, receiver;  // outlive the adapter, whose release ends them
    const Adapter adapter(device);
    sender.emplace([=] { sendFrames(device); });
    receiver.emplace([=] { countFrames(device); });
    std::fprintf(stderr, "cyclic: can%d is open\n", device);
    int ended;
    sigwait(&endSignals, &ended);
    return 0;
} catch (const std::exception& error) {
    std::fprintf(stderr, "cyclic: %s\n", error.what());
    return 1;
}
