// Passes frames between two buses until interrupted: gateway A B
// A and B are the numbers of the interfaces. Each direction has a thread that waits for frames. The
// main thread releases the adapters, which ends both, also after an adapter was pulled out.

#include <cstdio>
#include <exception>
#include <optional>

#include "adapter.hpp"
#include "arguments.h"
#include "end_signals.h"
#include "worker.hpp"

// Passes frames on in one direction until a device is released.
static void forward(int from, int to) {
    unsigned long frames = 0;
    for (_corvel_CanMsg msg;;) {
        const int32_t status = corvel_readMessage(from, &msg, 60000);
        if (status == CORVEL_NO_DEVICE) break;
        if (status != CORVEL_SUCCESS) continue;
        int32_t written = corvel_writeMessage(to, &msg);
        for (int tries = 0; written == CORVEL_NOT_WRITTEN && tries < 100; tries++) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));  // queue full or link down
            written = corvel_writeMessage(to, &msg);
        }
        if (written == CORVEL_SUCCESS) frames++;
    }
    std::printf("%lu frames from can%d to can%d\n", frames, from, to);
}

int main(int count, char** arguments) try {
    uint32_t numbers[2];
    readNumbers("usage: gateway A B    numbers of two CAN interfaces\n", count, arguments, 2, 2,
                numbers);
    const int a = static_cast<int>(numbers[0]), b = static_cast<int>(numbers[1]);
    holdSignals();  // in all threads; the main thread takes them with sigwait

    std::optional<Worker> there, back;  // outlive the adapters, whose release ends them
    const Adapter first(a), second(b);
    there.emplace([=] { forward(a, b); });
    back.emplace([=] { forward(b, a); });
    std::fprintf(stderr, "gateway: can%d and can%d are open\n", a, b);
    int ended;
    sigwait(&endSignals, &ended);
    return 0;
} catch (const std::exception& error) {
    std::fprintf(stderr, "gateway: %s\n", error.what());
    return 1;
}
