// Preload library of the launcher: when it is loaded into a program, it
// creates a world from the KSSIM_* environment options (sim/kssim_env.h) and
// installs it into the program's copy of the driver library, so the
// unmodified program sees simulated cameras.
#include <stdio.h>

#include "sim/kssim_env.h"

namespace {

__attribute__((constructor)) void kssim_preload_init() {
    kssim_world* w = kssim::world_from_env();
    if (w == nullptr || kssim_world_install(w) != 0) {
        fprintf(stderr, "kssim: the virtual cameras are not installed\n");
        if (w != nullptr) kssim_world_destroy(w);
    }
}

}  // namespace
