#include <stdio.h>

#include "ksStereoCameraDriver.h"

int main(void) {
    printf("%s\n", ksGetSdkVersion());
    return 0;
}
