#include "driver/driver_cpp/source/KSMIPICameraFactory.h"

KSMIPICameraFactory::KSMIPICameraFactory() {
    g_pMIPICameraFactory = this;
}
KSMIPICameraFactory::~KSMIPICameraFactory() {
    g_pMIPICameraFactory = nullptr;
}

static KSMIPICameraFactory s_mipiCameraFactory;
