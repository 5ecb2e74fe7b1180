#include "driver/driver_cpp/source/KSEthernetCameraFactory.h"

KSEthernetCameraFactory::KSEthernetCameraFactory() {
    g_pEthernetCameraFactory = this;
}
KSEthernetCameraFactory::~KSEthernetCameraFactory() {
    g_pEthernetCameraFactory = nullptr;
}

static KSEthernetCameraFactory s_ethernetCameraFactory;
