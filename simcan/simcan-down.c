// Reports to all sockets on a simulated interface that its link went down: simcan-down NAME

#include "simcan.h"

int main(int count, char** words) {
    if (count != 2) return 2;
    simcan_linkDown(words[1]);
    return 0;
}
