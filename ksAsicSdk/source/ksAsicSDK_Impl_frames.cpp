// Session frame access: source frames from the capture thread's ring.
#include "ksAsicSdk/source/ksAsicSDK_Impl.h"

int _KestraStereoCamSDK_Impl::getCurrenFrame(unsigned int* id, unsigned char** frame) {
    if (m_driver == nullptr) return -1;
    return ksY4L2GetNextSourceData(frame, id, m_driver);
}

int _KestraStereoCamSDK_Impl::getSafeCurrentFrame(unsigned int* id, unsigned char** frame) {
    if (m_driver == nullptr) return -1;
    return ksY4L2GetNextSafeSourceData(frame, id, m_driver);
}
