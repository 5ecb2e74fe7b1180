#include "ks_v4l2_driver/source/ks_v4l2_meta_shm.h"

#include <cstdio>

namespace {
int not_supported() {
    puts("Meta SHM not supported");
    return -1;
}
}  // namespace

extern "C" {
int initMetaDataShm(void) {
    return not_supported();
}
int releaseMetaDataShm(void) {
    return not_supported();
}
int getNextMetaData(unsigned short** meta, unsigned int* size) {
    return not_supported();
}
int insertMetaData(unsigned short* meta, unsigned int size) {
    return not_supported();
}
}
