// What a received datagram must become, from the layout of the kernel's frames: identifier word at
// 0, length at 4, CAN FD flags at 5, payload from 8.
#ifndef CORVEL_TESTS_FRAME_LAYOUT_H
#define CORVEL_TESTS_FRAME_LAYOUT_H

#include <cstring>

#include "tn_corvel.h"

// A record between guard bytes, filled with a pattern.
struct GuardedMsg {
    uint8_t before[64];
    _corvel_CanMsg msg;
    uint8_t after[64];
    GuardedMsg() { memset(static_cast<void*>(this), 0xA5, sizeof *this); }
    bool operator==(const GuardedMsg& other) const { return !memcmp(this, &other, sizeof other); }
};

// Fills `msg` with the frame, or leaves it alone and gives false when it is none that fits. More
// than 72 bytes arrive cut to 72.
inline bool expectedRead(const uint8_t* datagram, size_t size, _corvel_CanMsg& msg) {
    if (size != 16 && size < 72) return false;
    if (size != 16 && datagram[4] > 8) return false;
    memcpy(&msg.id, datagram, 4);
    msg.len = datagram[4] > 8 ? 8 : datagram[4];
    memcpy(msg.data, datagram + 8, msg.len);
    msg.extended = datagram[3] >> 7;
    msg.remote = (datagram[3] >> 6) & 1;
    return true;
}

#endif
