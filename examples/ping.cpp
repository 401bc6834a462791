// Sends one frame from can0 to can1 and tells how long it took: ping

#include <cstdio>
#include <exception>

#include "adapter.hpp"
#include "end_signals.h"
#include "words.h"

int main(int count, char** words) try {
    checkWords("usage: ping    from can0 to can1\n", count, words, 0, 0);
    using Clock = std::chrono::steady_clock;
    holdSignals();  // a Ctrl-C waits for the second that this takes
    Adapter from(0), to(1);
    const auto start = Clock::now();
    const bool written = from.write({0x123, {1, 2, 3}, 3, {}, 0, 0});
    const auto msg = to.read(std::chrono::seconds(1));
    const std::chrono::duration<double, std::micro> took = Clock::now() - start;
    if (!written || !msg) {
        std::puts("the frame did not arrive");
        return 1;
    }
    std::printf("identifier %03X, %d bytes, after %.0f us\n", msg->id, msg->len, took.count());
    return 0;
} catch (const std::exception& error) {
    std::fprintf(stderr, "ping: %s\n", error.what());
    return 1;
}
