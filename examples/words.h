// The words of a program's command line (help, words that are wrong, numbers), and what a program
// says when it cannot initialise an adapter. To copy.

#pragma once

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <tn_corvel.h>

// Names a word that is wrong, and ends the program.
static inline void refuse(const char* usage, const char* word, const char* why) {
    fprintf(stderr, "'%s' %s\n%s", word, why, usage);
    exit(2);
}

// Ends the program when it is asked for help, or was given too few words, too many, or an option.
static inline void checkWords(const char* usage, int count, char** words, int fewest, int most) {
    for (int i = 1; i < count; i++) {
        if (strcmp(words[i], "-h") == 0 || strcmp(words[i], "--help") == 0) {
            fputs(usage, stdout);
            exit(EXIT_SUCCESS);
        }
        if (words[i][0] == '-') refuse(usage, words[i], "is unknown");
    }
    if (count - 1 > most) refuse(usage, words[most + 1], "is one word too many");
    if (count - 1 < fewest) {
        fputs(usage, stderr);
        exit(2);
    }
}

// Reads a decimal number up to `limit`, or ends the program.
static inline unsigned readNumber(const char* usage, const char* word, unsigned limit) {
    char* end;
    const unsigned long value = strtoul(word, &end, 10);
    if (*word < '0' || *word > '9' || *end != '\0' || value > limit) {
        char why[40];
        snprintf(why, sizeof why, "is not a number from 0 to %u", limit);
        refuse(usage, word, why);
    }
    return (unsigned)value;
}

// Tells that corvel_initDLL gave this status. The log has said why.
static inline void tellFailure(const char* program, int device, int status) {
    fprintf(stderr, "%s: can%d could not be initialised (status %d)\n", program, device, status);
    if (status != CORVEL_OPEN_FAILED) return;
    fprintf(stderr, "%s: if its link was left up: sudo ip link set can%d down\n", program, device);
}
