// Frame-metadata shared-memory channel. The channel is not supported: every
// call says so and fails.
#ifndef KS_V4L2_META_SHM_H
#define KS_V4L2_META_SHM_H

#include "common/ks_export.h"

KS_BEGIN_DECLS

KS_API int initMetaDataShm(void);
KS_API int releaseMetaDataShm(void);
KS_API int getNextMetaData(unsigned short** meta, unsigned int* size);
KS_API int insertMetaData(unsigned short* meta, unsigned int size);

KS_END_DECLS

#endif
