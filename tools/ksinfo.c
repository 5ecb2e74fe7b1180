/* Prints what this build of the library is. */
#include <stdio.h>

#include "ksStereoCameraDriver.h"

int main(void) {
    printf("libksStereoCameraDriver %s\n", ksGetSdkVersion());
    return 0;
}
