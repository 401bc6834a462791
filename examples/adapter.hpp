// One adapter as a C++ object, which is released when it is destroyed. To copy; not part of the
// library.

#pragma once

#include <tn_corvel.h>

#include <chrono>
#include <optional>
#include <stdexcept>
#include <string>

class Adapter {
public:
    // Rates in kbit/s; a data bit rate selects CAN FD. Throws if the adapter cannot be opened.
    explicit Adapter(int32_t index, uint32_t bitrate = 500, uint32_t dbitrate = 0)
        : m_index(index) {
        const int32_t status = corvel_initDLL(index, bitrate, dbitrate != 0, dbitrate);
        if (status != CORVEL_SUCCESS) {
            throw std::runtime_error("can" + std::to_string(index) +
                                     " could not be initialised (status " + std::to_string(status) +
                                     ')');
        }
    }
    ~Adapter() { corvel_freeDLL(m_index); }
    Adapter(const Adapter&) = delete;
    Adapter& operator=(const Adapter&) = delete;

    // Waits for room, without limit while no other adapter acknowledges: releasing this one on
    // another thread ends the wait. False if the transmit queue is full or the link is down.
    bool write(const _corvel_CanMsg& msg) {
        return corvel_writeMessage(m_index, &msg) == CORVEL_SUCCESS;
    }

    // Nothing if no frame came in time.
    std::optional<_corvel_CanMsg> read(std::chrono::milliseconds timeout) {
        _corvel_CanMsg msg{};
        const auto limit = static_cast<uint32_t>(timeout.count());
        if (corvel_readMessage(m_index, &msg, limit) != CORVEL_SUCCESS) return std::nullopt;
        return msg;
    }

private:
    const int32_t m_index;
};
