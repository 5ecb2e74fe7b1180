#ifndef KS_ETHERNET_CAMERA_FACTORY_H
#define KS_ETHERNET_CAMERA_FACTORY_H

#include "driver/driver_cpp/source/KSCameraFactory.h"

// No Ethernet camera exists yet: this factory answers every creation with the
// base refusal.
class KSEthernetCameraFactory : public KSCameraFactory {
  public:
    KSEthernetCameraFactory();
    ~KSEthernetCameraFactory() override;
};

#endif
