// The harnesses' own checks: a broken expectation aborts, so libFuzzer and
// the replay tests both report it as a crash with the message.
#ifndef KS_FUZZ_CHECK_H
#define KS_FUZZ_CHECK_H

#include <cstdio>
#include <cstdlib>

#define FUZZ_CHECK(cond)                                                             \
    do {                                                                             \
        if (!(cond)) {                                                               \
            fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
            abort();                                                                 \
        }                                                                            \
    } while (0)

#endif
