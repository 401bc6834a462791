// Reads the arguments of a program, all of which are numbers. To copy.

#pragma once

#include <ctype.h>
#include <stdbool.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

// Stores each argument in `numbers`; elements without an argument keep their values. Prints `usage`
// and ends the program on --help, or if an argument is wrong or missing.
static inline void readNumbers(const char* usage, int count, char** arguments, int fewest, int most,
                               uint32_t* numbers) {
    for (int i = 1; i < count; i++) {
        const char* text = arguments[i];
        char* end;
        const unsigned long value = strtoul(text, &end, 10);
        if (i <= most && isdigit((unsigned char)*text) && *end == '\0' && value <= 4294967) {
            numbers[i - 1] = (uint32_t)value;  // at most the highest bit rate in kbit/s
            continue;
        }
        const bool help = strcmp(text, "-h") == 0 || strcmp(text, "--help") == 0;
        if (!help) fprintf(stderr, "wrong argument: %s\n", text);
        fputs(usage, help ? stdout : stderr);
        exit(help ? 0 : 2);
    }
    if (count - 1 >= fewest) return;
    fputs(usage, stderr);
    exit(2);
}
