// Compiles what is set for a CAN socket into a filter program for the kernel: a datagram that it
// does not pass wakes nobody. The settings are stored as leading load instructions without effect.

#include <arpa/inet.h>
#include <netinet/udp.h>

#include "internal.h"

enum { DROP = 0, PASS = 1 };
enum { OPEN = 0xFF };  // an offset that land() fills in

static size_t add(struct program* program, uint16_t code, uint8_t yes, uint8_t no, uint32_t value) {
    program->code[program->length] = (struct sock_filter){code, yes, no, value};
    return program->length++;
}

static void storeWord(struct program* program, uint32_t word) {
    add(program, BPF_LD | BPF_IMM, 0, 0, word);
}

static void load(struct program* program, size_t offset) {
    add(program, BPF_LD | BPF_W | BPF_ABS, 0, 0, (uint32_t)(sizeof(struct udphdr) + offset));
}

static void end(struct program* program, int passes) {
    add(program, BPF_RET | BPF_K, 0, 0, passes ? UINT32_MAX : 0);
}

// Jumps to where land() says if the loaded word has this value (BPF_JEQ) or these bits (BPF_JSET).
static size_t jumpIf(struct program* program, uint16_t test, uint32_t value) {
    return add(program, BPF_JMP | test | BPF_K, OPEN, 0, value);
}

static size_t jumpUnless(struct program* program, uint16_t test, uint32_t value) {
    return add(program, BPF_JMP | test | BPF_K, 0, OPEN, value);
}

static size_t jump(struct program* program) {
    return add(program, BPF_JMP | BPF_JA, 0, 0, 0);
}

static void land(struct program* program, size_t from) {
    struct sock_filter* const code = &program->code[from];
    const size_t distance = program->length - from - 1;
    if (BPF_OP(code->code) == BPF_JA) {
        code->k = (uint32_t)distance;
    } else {
        *(code->jt == OPEN ? &code->jt : &code->jf) = (uint8_t)distance;
    }
}

// Ends the program when the test has this outcome.
static void endWhen(struct program* program, int outcome, uint16_t test, uint32_t value,
                    int passes) {
    const size_t other = outcome ? jumpUnless(program, test, value) : jumpIf(program, test, value);
    end(program, passes);
    land(program, other);
}

struct link* linkOf(struct state state) {
    return state.link >= 0 && state.link < linkCount() ? &links[state.link] : NULL;
}

// Passes reports about the own link, and goes on with frames of a format wanted.
static void addFormats(struct program* program, struct state state, uint32_t link) {
    const uint32_t empty = sizeof(struct udphdr) + sizeof(struct label);
    add(program, BPF_LD | BPF_W | BPF_LEN, 0, 0, 0);
    const size_t frame = jumpUnless(program, BPF_JEQ, empty);
    load(program, offsetof(struct label, link));
    endWhen(program, 1, BPF_JEQ, htonl(link), PASS);
    end(program, DROP);
    land(program, frame);
    const size_t classic = jumpIf(program, BPF_JEQ, empty + CAN_MTU);
    endWhen(program, 0, BPF_JEQ, (state.options & CAN_FD) != 0 ? empty + CANFD_MTU : 0, DROP);
    land(program, classic);
}

// Goes on with frames of the own bus, or of all that this process knows.
static void addBuses(struct program* program, struct state state) {
    size_t known[LINK_LIMIT];
    const struct link* const own = linkOf(state);
    const int count = state.link == ALL_LINKS ? linkCount() : own != NULL;
    load(program, offsetof(struct label, bus));
    for (int i = 0; i < count; i++) {
        known[i] = jumpIf(program, BPF_JEQ, htonl(own != NULL ? own->bus : links[i].bus));
    }
    end(program, DROP);
    for (int i = 0; i < count; i++) land(program, known[i]);
}

// Goes on with what this socket sent to itself alone, and with what other sockets sent, unless it
// is for other links.
static void addAudience(struct program* program, uint32_t link, uint32_t own) {
    load(program, offsetof(struct label, audience));
    const size_t toSender = jumpIf(program, BPF_JEQ, htonl(SENDER));
    const size_t toOthers = jumpIf(program, BPF_JEQ, htonl(OTHERS));
    load(program, offsetof(struct label, link));
    endWhen(program, 1, BPF_JEQ, htonl(link), DROP);
    land(program, toOthers);
    load(program, offsetof(struct label, socket));
    endWhen(program, 1, BPF_JEQ, htonl(own), DROP);
    const size_t received = jump(program);
    land(program, toSender);
    load(program, offsetof(struct label, socket));
    endWhen(program, 0, BPF_JEQ, htonl(own), DROP);
    land(program, received);
}

static void countMatch(struct program* program, uint32_t errors) {
    add(program, BPF_LD | BPF_MEM, 0, 0, 0);
    const size_t other = jumpUnless(program, BPF_JSET, htonl(errors));
    add(program, BPF_LD | BPF_MEM, 0, 0, 1);
    add(program, BPF_ALU | BPF_ADD | BPF_K, 0, 0, 1);
    add(program, BPF_ST, 0, 0, 1);
    land(program, other);
}

// Passes error frames of the kinds asked for, by the error mask or by a filter whose mask has the
// error flag. As in the kernel, joined filters want as many matches as there are filters, and the
// error mask is one match more.
static void addErrorFilters(struct program* program, struct state state,
                            const struct settings* settings) {
    add(program, BPF_LD | BPF_IMM, 0, 0, 0);
    add(program, BPF_ST, 0, 0, 1);
    countMatch(program, settings->errors);
    for (uint32_t i = 0; i < settings->count; i++) {
        const canid_t mask = settings->filters[i].can_mask;
        if ((mask & CAN_ERR_FLAG) != 0) countMatch(program, mask & CAN_ERR_MASK);
    }
    const int all = (state.options & JOINED) != 0 && settings->count > 0;
    add(program, BPF_LD | BPF_MEM, 0, 0, 1);
    endWhen(program, 1, BPF_JGE, all ? settings->count : 1, PASS);
    end(program, DROP);
}

// Passes frames that match one filter, or all of them if they are joined.
static void addFilters(struct program* program, struct state state,
                       const struct settings* settings) {
    const int joined = (state.options & JOINED) != 0;
    for (uint32_t i = 0; i < settings->count; i++) {
        const canid_t id = settings->filters[i].can_id;
        canid_t mask = settings->filters[i].can_mask;
        if ((mask & CAN_ERR_FLAG) != 0) {  // only error frames match it
            if (!joined) continue;
            end(program, DROP);
            return;
        }
        if ((mask & CAN_EFF_FLAG) != 0 && (id & CAN_EFF_FLAG) == 0) {
            mask &= CAN_SFF_MASK | CAN_EFF_FLAG | CAN_RTR_FLAG;
        }
        add(program, BPF_LD | BPF_MEM, 0, 0, 0);
        add(program, BPF_ALU | BPF_AND | BPF_K, 0, 0, htonl(mask));
        const int outcome = ((id & CAN_INV_FILTER) != 0) == joined;
        endWhen(program, outcome, BPF_JEQ, htonl(id & mask), !joined);
    }
    end(program, joined && settings->count > 0);
}

void compileFilter(struct program* program, struct state state, uint32_t socket,
                   const struct settings* settings) {
    const struct link* const link = linkOf(state);
    const uint32_t number = link != NULL ? link->number : 0;
    program->length = 0;
    storeWord(program, settings->errors);
    storeWord(program, settings->count);
    for (uint32_t i = 0; i < settings->count; i++) {
        storeWord(program, settings->filters[i].can_id);
        storeWord(program, settings->filters[i].can_mask);
    }
    addFormats(program, state, number);
    addBuses(program, state);
    addAudience(program, number, socket);
    load(program, FRAME_AT + offsetof(struct canfd_frame, can_id));
    add(program, BPF_ST, 0, 0, 0);
    const size_t isError = jumpIf(program, BPF_JSET, htonl(CAN_ERR_FLAG));
    const size_t isFrame = jump(program);
    land(program, isError);
    addErrorFilters(program, state, settings);
    land(program, isFrame);
    addFilters(program, state, settings);
}

void extractSettings(const struct program* program, struct settings* settings) {
    settings->errors = program->code[0].k;
    settings->count = program->code[1].k;
    for (uint32_t i = 0; i < settings->count; i++) {
        settings->filters[i].can_id = program->code[2 + 2 * i].k;
        settings->filters[i].can_mask = program->code[3 + 2 * i].k;
    }
}

void compileReports(struct program* program) {
    program->length = 0;
    add(program, BPF_LD | BPF_W | BPF_LEN, 0, 0, 0);
    endWhen(program, 1, BPF_JGT, sizeof(struct udphdr) + sizeof(struct label), DROP);
    end(program, PASS);
}
