// Sends one frame, once or repeatedly: send N FRAME [COUNT [INTERVAL [BITRATE [DBITRATE]]]]
// N is the number of the interface. FRAME is in cansend's notation: 123#112233, 1ABCDEF0#11.22 or,
// for a remote frame, 123#R2; eight digits make an extended identifier. INTERVAL is in ms. Rates
// are in kbit/s (500); a data bit rate selects CAN FD.

#include <ctype.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <tn_corvel.h>
#include <unistd.h>

#include "end_signals.h"
#include "words.h"

static const char usage[] =
    "usage: send N FRAME [COUNT [INTERVAL [BITRATE [DBITRATE]]]]\n"
    "N: number of the interface; FRAME: such as 123#112233, 1ABCDEF0#11.22 or 123#R2;\n"
    "INTERVAL in ms; rates in kbit/s; a data bit rate selects CAN FD\n";

// Reads a frame; false when it is not in the notation.
static bool parse(const char* text, _corvel_CanMsg* msg) {
    const size_t digits = strspn(text, "0123456789ABCDEFabcdef");
    if ((digits != 3 && digits != 8) || text[digits] != '#') return false;
    memset(msg, 0, sizeof *msg);
    msg->extended = digits == 8;
    msg->id = (uint32_t)strtoul(text, NULL, 16);
    if (msg->id > (msg->extended ? 0x1FFFFFFFu : 0x7FFu)) return false;

    const char* rest = text + digits + 1;
    if (*rest == 'R' || *rest == 'r') {
        msg->remote = 1;
        rest++;
        if (*rest >= '0' && *rest <= '8') msg->len = (uint8_t)(*rest++ - '0');
        return *rest == '\0';
    }
    while (msg->len < 8 && isxdigit((unsigned char)rest[0]) && isxdigit((unsigned char)rest[1])) {
        const char byte[3] = {rest[0], rest[1], '\0'};
        msg->data[msg->len++] = (uint8_t)strtoul(byte, NULL, 16);
        rest += 2;
        if (*rest == '.' && rest[1] != '\0') rest++;
    }
    return *rest == '\0';
}

static void pause_ms(unsigned ms) {
    const struct timespec time = {(time_t)(ms / 1000), (long)(ms % 1000) * 1000000};
    nanosleep(&time, NULL);
}

// Writes a frame, giving a full transmit queue five seconds to drain unless a signal comes.
static int sendPatiently(int device, const _corvel_CanMsg* msg) {
    int status = corvel_writeMessage(device, msg);
    for (int tries = 0; status == CORVEL_NOT_WRITTEN && tries < 5000 && !stopped; tries++) {
        pause_ms(1);
        status = corvel_writeMessage(device, msg);
    }
    return status;
}

int main(int count, char** words) {
    _corvel_CanMsg msg;
    checkWords(usage, count, words, 2, 6);
    const int device = (int)readNumber(usage, words[1], 9999);
    if (!parse(words[2], &msg)) refuse(usage, words[2], "is not a frame");
    const unsigned total = count > 3 ? readNumber(usage, words[3], 4294967295u) : 1;
    const unsigned interval = count > 4 ? readNumber(usage, words[4], 3600000) : 0;
    const unsigned bitrate = count > 5 ? readNumber(usage, words[5], 4294967) : 500;
    const unsigned dbitrate = count > 6 ? readNumber(usage, words[6], 4294967) : 0;
    if (count > 6 && msg.remote) refuse(usage, words[2], "is a remote frame, which CAN FD has not");

    holdSignals();
    const int status = corvel_initDLL(device, bitrate, count > 6, dbitrate);
    if (status != CORVEL_SUCCESS) {
        tellFailure("send", device, status);
        return 1;
    }
    letSignals();
    const bool showProgress = isatty(STDERR_FILENO);
    time_t shown = time(NULL);
    unsigned sent = 0;
    while (sent < total && !stopped && sendPatiently(device, &msg) == CORVEL_SUCCESS) {
        sent++;
        if (showProgress && time(NULL) != shown) {
            shown = time(NULL);
            fprintf(stderr, "\r%u of %u frames", sent, total);
        }
        if (interval > 0 && sent < total) pause_ms(interval);
    }
    pause_ms(100);  // releasing takes the link down, and with it what is still in the queue
    holdSignals();
    corvel_freeDLL(device);
    fprintf(stderr, "%s%u of %u frames sent\n", showProgress ? "\r" : "", sent, total);
    return sent == total ? 0 : 1;
}
