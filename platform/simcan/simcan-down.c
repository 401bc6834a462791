// Wakes what waits on a simulated interface: simcan-down NAME

#include "simcan.h"

int main(int count, char** words) {
    if (count != 2) return 2;
    simcan_linkDown(words[1]);
    return 0;
}
