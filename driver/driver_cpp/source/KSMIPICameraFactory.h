#ifndef KS_MIPI_CAMERA_FACTORY_H
#define KS_MIPI_CAMERA_FACTORY_H

#include "driver/driver_cpp/source/KSCameraFactory.h"

// No MIPI camera exists yet: this factory answers every creation with the
// base refusal.
class KSMIPICameraFactory : public KSCameraFactory {
  public:
    KSMIPICameraFactory();
    ~KSMIPICameraFactory() override;
};

#endif
