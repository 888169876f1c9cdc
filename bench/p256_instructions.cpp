// Executed instructions of the four operations on P-256, this library's engine beside its peers:
// the mean of 16 operations, each with another input. Run under qemu-user with the plugin
// count_instructions.c, which counts between the two marks and prints each count on standard error.

#include "p256_peers.h"

#include <stdio.h>
#include <sys/syscall.h>
#include <unistd.h>

// System calls that do not exist, and do nothing but tell the plugin.
static const long START_MARK = 0x7001;
static const long STOP_MARK = 0x7002;

int main()
{
    std::vector<P256Peer> peers;
    if (!set_up_p256_peers(&peers)) {
        fputs("the peers disagree\n", stderr);
        return 1;
    }
    for (const P256Peer& peer : peers) {
        for (const P256Operation& operation : P256_OPERATIONS) {
            bool succeeded = true;
            syscall(START_MARK);
            for (size_t input = 0; input < INPUT_COUNT; ++input) {
                succeeded = (peer.*operation.run)(input) && succeeded;
            }
            syscall(STOP_MARK);
            if (!succeeded) {
                fprintf(stderr, "%s: %s failed\n", peer.name, operation.name);
                return 1;
            }
        }
    }
    return 0;
}
