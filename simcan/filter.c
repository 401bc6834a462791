// A CAN socket's filter in the kernel: what it does not pass wakes nobody. Before its rules, the
// program loads words that no rule uses: they hold what was set.

#include <arpa/inet.h>
#include <linux/filter.h>
#include <netinet/udp.h>
#include <stddef.h>

#include "internal.h"

struct program {
    struct sock_filter code[2 + 6 * CAN_RAW_FILTER_MAX + 100];
    uint16_t length;
};

static void add(struct program* program, uint16_t code, uint8_t yes, uint8_t no, uint32_t value) {
    program->code[program->length++] = (struct sock_filter){code, yes, no, value};
}

static void load(struct program* program, size_t offset) {
    add(program, BPF_LD | BPF_W | BPF_ABS, 0, 0, (uint32_t)(sizeof(struct udphdr) + offset));
}

// Ends the program when the loaded word has this value, or where `code` says BPF_JSET, these bits.
static void endIf(struct program* program, uint16_t code, uint32_t value, int passes) {
    add(program, BPF_JMP | code | BPF_K, 0, 1, value);
    add(program, BPF_RET | BPF_K, 0, 0, passes ? UINT32_MAX : 0);
}

static void endUnless(struct program* program, uint16_t code, uint32_t value, int passes) {
    add(program, BPF_JMP | code | BPF_K, 1, 0, value);
    add(program, BPF_RET | BPF_K, 0, 0, passes ? UINT32_MAX : 0);
}

// Passes datagrams without a frame that tell of the own link, and frames of a format wanted.
static void addFormats(struct program* program, struct state state, uint32_t link) {
    const uint32_t empty = sizeof(struct udphdr) + sizeof(struct label);
    add(program, BPF_LD | BPF_W | BPF_LEN, 0, 0, 0);
    add(program, BPF_JMP | BPF_JEQ | BPF_K, 0, 4, empty);
    load(program, offsetof(struct label, link));
    endIf(program, BPF_JEQ, htonl(link), 1);
    add(program, BPF_RET | BPF_K, 0, 0, 0);
    add(program, BPF_JMP | BPF_JEQ | BPF_K, 2, 0, empty + CAN_MTU);
    endUnless(program, BPF_JEQ, (state.options & CAN_FD) != 0 ? empty + CANFD_MTU : 0, 0);
}

// Passes frames of the own bus, or of all that this process knows.
static void addBuses(struct program* program, struct state state) {
    load(program, offsetof(struct label, bus));
    const int count = state.link == ALL_LINKS ? linkCount() : 1;
    for (int i = 0; i < count; i++) {
        const struct link* const known = state.link == ALL_LINKS ? &links[i] : linkOf(state);
        add(program, BPF_JMP | BPF_JEQ | BPF_K, (uint8_t)(count - i), 0,
            known ? htonl(known->bus) : 0);
    }
    add(program, BPF_RET | BPF_K, 0, 0, 0);
}

// Passes what is sent to this socket, and does not pass what it has sent to others itself, or what
// another socket on its link has sent to other links.
static void addAudience(struct program* program, uint32_t link, uint32_t own) {
    load(program, offsetof(struct label, audience));
    add(program, BPF_JMP | BPF_JEQ | BPF_K, 0, 3, htonl(SENDER));
    load(program, offsetof(struct label, socket));
    add(program, BPF_JMP | BPF_JEQ | BPF_K, 9, 0, htonl(own));  // on with the filters
    add(program, BPF_RET | BPF_K, 0, 0, 0);
    load(program, offsetof(struct label, socket));
    endIf(program, BPF_JEQ, htonl(own), 0);
    load(program, offsetof(struct label, audience));
    add(program, BPF_JMP | BPF_JEQ | BPF_K, 3, 0, htonl(OTHERS));
    load(program, offsetof(struct label, link));
    endIf(program, BPF_JEQ, htonl(link), 0);
}

// Passes error frames of the kinds asked for, and other frames that match one filter, or all of
// them when they are joined. As in the kernel, a filter whose mask has the error flag asks for
// errors.
static void addFilters(struct program* program, struct state state,
                       const struct settings* settings) {
    const int joined = (state.options & JOINED) != 0;
    uint32_t errors = settings->errors;
    for (uint32_t i = 0; i < settings->count; i++) {
        const canid_t mask = settings->filters[i].can_mask;
        if ((mask & CAN_ERR_FLAG) != 0) errors |= mask & CAN_ERR_MASK;
    }
    if (joined && settings->count > 1) errors = 0;  // no error frame matches all of them
    load(program, offsetof(struct packet, frame.can_id));
    add(program, BPF_ST, 0, 0, 0);
    add(program, BPF_JMP | BPF_JSET | BPF_K, 0, 3, htonl(CAN_ERR_FLAG));
    endIf(program, BPF_JSET, htonl(errors), 1);
    add(program, BPF_RET | BPF_K, 0, 0, 0);
    for (uint32_t i = 0; i < settings->count; i++) {
        const canid_t id = settings->filters[i].can_id;
        canid_t mask = settings->filters[i].can_mask;
        if ((mask & CAN_ERR_FLAG) != 0) {  // which no frame but an error frame matches
            if (joined) add(program, BPF_RET | BPF_K, 0, 0, 0);
            continue;
        }
        if ((mask & CAN_EFF_FLAG) != 0 && (id & CAN_EFF_FLAG) == 0) {
            mask &= CAN_SFF_MASK | CAN_EFF_FLAG | CAN_RTR_FLAG;
        }
        add(program, BPF_LD | BPF_MEM, 0, 0, 0);
        add(program, BPF_ALU | BPF_AND | BPF_K, 0, 0, htonl(mask));
        if (((id & CAN_INV_FILTER) != 0) == joined) {
            endIf(program, BPF_JEQ, htonl(id & mask), !joined);
        } else {
            endUnless(program, BPF_JEQ, htonl(id & mask), !joined);
        }
    }
    add(program, BPF_RET | BPF_K, 0, 0, joined && settings->count > 0 ? UINT32_MAX : 0);
}

static void keep(struct program* program, uint32_t word) {
    add(program, BPF_LD | BPF_IMM, 0, 0, word);
}

int attachFilter(int fd, struct state state, const struct settings* settings) {
    const struct link* const link = linkOf(state);
    const uint32_t number = link != NULL ? link->number : 0;
    struct program program = {.length = 0};
    keep(&program, settings->errors);
    keep(&program, settings->count);
    for (uint32_t i = 0; i < settings->count; i++) {
        keep(&program, settings->filters[i].can_id);
        keep(&program, settings->filters[i].can_mask);
    }
    addFormats(&program, state, number);
    addBuses(&program, state);
    addAudience(&program, number, numberOf(fd));
    addFilters(&program, state, settings);
    const struct sock_fprog attached = {program.length, program.code};
    return REAL(setsockopt)(fd, SOL_SOCKET, SO_ATTACH_FILTER, &attached, sizeof attached);
}

void readSettings(int fd, struct settings* settings) {
    struct program program = {.length = 0};
    socklen_t length = sizeof program.code / sizeof *program.code;
    REAL(getsockopt)(fd, SOL_SOCKET, SO_GET_FILTER, program.code, &length);
    settings->errors = program.code[0].k;
    settings->count = program.code[1].k;
    for (uint32_t i = 0; i < settings->count; i++) {
        settings->filters[i].can_id = program.code[2 + 2 * i].k;
        settings->filters[i].can_mask = program.code[3 + 2 * i].k;
    }
}
