#include "common/ks_export.h"
extern "C" KS_API const char *ksGetSdkVersion(void) { return "1.4.7.273"; }
