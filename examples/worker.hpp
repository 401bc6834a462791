// A thread that uses devices until one of them is released. To copy.

#pragma once

#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <thread>

class Worker {
public:
    // `work` returns once a call has returned CORVEL_NO_DEVICE.
    template <typename Work>
    explicit Worker(Work work)
        : m_thread([this, work] {
              work();
              m_ended = true;
          }) {}

    // Waits for the end of `work`: release its device first. After the adapter was pulled out, a
    // read may still wait in the kernel; only a signal ends it.
    ~Worker() {
        struct sigaction nothing = {};  // no SA_RESTART, so that the interrupted call returns
        nothing.sa_handler = [](int) {};
        sigaction(SIGUSR1, &nothing, nullptr);
        while (!m_ended) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
            pthread_kill(m_thread.native_handle(), SIGUSR1);
        }
        m_thread.join();
    }

private:
    std::atomic<bool> m_ended{false};
    std::thread m_thread;  // last, as it uses the flag
};
