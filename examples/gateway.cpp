// Passes frames between two buses until interrupted: gateway A B
// A and B are the numbers of the interfaces. Each direction has a thread that waits for frames; the
// release of the adapters, by the main thread, ends both.

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <future>
#include <stdexcept>
#include <string>
#include <thread>

#include "adapter.hpp"
#include "end_signals.h"

// Passes frames on until one of the devices is released; returns how many.
static unsigned long forward(int from, int to) {
    unsigned long frames = 0;
    for (_corvel_CanMsg msg;;) {
        const int32_t status = corvel_readMessage(from, &msg, 60000);
        if (status == CORVEL_NO_DEVICE) return frames;
        if (status != CORVEL_SUCCESS) continue;
        int32_t written = corvel_writeMessage(to, &msg);
        for (int tries = 0; written == CORVEL_NOT_WRITTEN && tries < 100; tries++) {  // queue full
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
            written = corvel_writeMessage(to, &msg);
        }
        if (written == CORVEL_SUCCESS) frames++;
    }
}

static int number(const char* text) {
    char* end;
    const long value = std::strtol(text, &end, 10);
    if (end != text && *end == '\0' && value >= 0 && value <= 9999) return static_cast<int>(value);
    throw std::invalid_argument(std::string("no number of an interface: ") + text);
}

int main(int count, char** words) try {
    if (count != 3) {
        std::fprintf(stderr, "usage: gateway A B    numbers of two CAN interfaces\n");
        return 2;
    }
    const int a = number(words[1]);
    const int b = number(words[2]);
    holdSignals();                           // in all threads; this one asks for them
    std::future<unsigned long> there, back;  // outlive the adapters, whose release ends them
    {
        const Adapter first(a), second(b);
        there = std::async(std::launch::async, forward, a, b);
        back = std::async(std::launch::async, forward, b, a);
        int ended;
        sigwait(&endSignals, &ended);
    }
    std::printf("%lu frames from can%d to can%d, ", there.get(), a, b);
    std::printf("%lu back\n", back.get());
    return 0;
} catch (const std::exception& error) {
    std::fprintf(stderr, "gateway: %s\n", error.what());
    return 1;
}
