// Passes frames between two buses until interrupted: gateway A B
// A and B are the numbers of the interfaces. Each direction has a thread that waits for frames; the
// release of the adapters, by the main thread, ends both, also after an adapter was pulled out.

#include <pthread.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <exception>
#include <optional>
#include <thread>

#include "adapter.hpp"
#include "end_signals.h"
#include "words.h"

using std::chrono::milliseconds;
using std::this_thread::sleep_for;

// One direction, on a thread of its own that ends when one of the devices has been released.
class Direction {
public:
    Direction(int from, int to) : m_from(from), m_to(to), m_thread([this] { forward(); }) {}

    // When an adapter is pulled out, a read may be left waiting in the kernel. A signal ends it.
    ~Direction() {
        while (!m_ended) {
            sleep_for(milliseconds(10));
            pthread_kill(m_thread.native_handle(), SIGUSR1);
        }
        m_thread.join();
        std::printf("%lu frames from can%d to can%d\n", m_frames, m_from, m_to);
    }

private:
    void forward() {
        for (_corvel_CanMsg msg;;) {
            const int32_t status = corvel_readMessage(m_from, &msg, 60000);
            if (status == CORVEL_NO_DEVICE) break;
            if (status != CORVEL_SUCCESS) continue;
            int32_t written = corvel_writeMessage(m_to, &msg);
            for (int tries = 0; written == CORVEL_NOT_WRITTEN && tries < 100; tries++) {
                sleep_for(milliseconds(10));  // the queue is full, or the link is down
                written = corvel_writeMessage(m_to, &msg);
            }
            if (written == CORVEL_SUCCESS) m_frames++;
        }
        m_ended = true;
    }

    const int m_from, m_to;
    unsigned long m_frames = 0;
    std::atomic<bool> m_ended{false};
    std::thread m_thread;  // last: it uses the others
};

int main(int count, char** words) try {
    const char usage[] = "usage: gateway A B    numbers of two CAN interfaces\n";
    checkWords(usage, count, words, 2, 2);
    const int a = static_cast<int>(readNumber(usage, words[1], 9999));
    const int b = static_cast<int>(readNumber(usage, words[2], 9999));
    holdSignals();                  // in all threads; this one asks for them
    struct sigaction nothing = {};  // no SA_RESTART: a call that the signal meets comes back
    nothing.sa_handler = [](int) {};
    sigaction(SIGUSR1, &nothing, nullptr);

    std::optional<Direction> there, back;  // outlive the adapters, whose release ends them
    const Adapter first(a), second(b);
    there.emplace(a, b);
    back.emplace(b, a);
    std::fprintf(stderr, "gateway: can%d and can%d are open\n", a, b);
    int ended;
    sigwait(&endSignals, &ended);
    return 0;
} catch (const std::exception& error) {
    std::fprintf(stderr, "gateway: %s\n", error.what());
    return 1;
}
