// The application layer's functions and shared data are exported from the
// shared library under their own names, and its records keep their layout.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <set>
#include <string>

#include "ks_asic_iic_ctrl/source/ks_iic_application_layer.h"
#include "tests/support/exported_declarations.h"

TEST(CtrlLayerExports, DeclaredFunctionsAndSharedDataAreExported) {
    void* lib = dlopen(KS_SHARED_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(nullptr, lib) << dlerror();
    size_t total = 0;
    for (const char* header : {"/ks_asic_iic_ctrl/source/ks_iic_eeprom_store.h",
                               "/ks_asic_iic_ctrl/source/ks_iic_asic_control.h",
                               "/ks_asic_iic_ctrl/source/ks_iic_cmos_control.h",
                               "/ks_asic_iic_ctrl/source/ks_iic_image_transfer.h"}) {
        const std::set<std::string> names =
            exported_declarations(std::string(KS_SOURCE_DIR) + header);
        EXPECT_FALSE(names.empty()) << header;
        total += names.size();
        for (const std::string& name : names)
            EXPECT_NE(nullptr, dlsym(lib, name.c_str())) << name << " is not exported";
    }
    EXPECT_GE(total, 100u);
    for (const char* data :
         {"ae_closed_flag", "cmosname_sony", "cmosname_ov9281", "cmosname_ar0144",
          "cmosname_ar0132", "cmosname_sc132gs", "cmosname_undefined"})
        EXPECT_NE(nullptr, dlsym(lib, data)) << data << " is not exported";
    dlclose(lib);
}

TEST(CtrlLayerExports, RecordsKeepTheirLayout) {
    EXPECT_EQ(8u, sizeof(_struct_epr_info));
    EXPECT_EQ(0u, offsetof(_struct_epr_info, index));
    EXPECT_EQ(2u, offsetof(_struct_epr_info, height));
    EXPECT_EQ(4u, offsetof(_struct_epr_info, width));
    EXPECT_EQ(6u, offsetof(_struct_epr_info, reserved_a));
    EXPECT_EQ(7u, offsetof(_struct_epr_info, reserved_b));
    EXPECT_EQ(2u, offsetof(_struct_rectify_cam_para_info, roi_start_x));
    EXPECT_EQ(8u, offsetof(_struct_rectify_cam_para_info, opt_center_x));
    EXPECT_EQ(24u, sizeof(_struct_rectify_cam_para_info));
}
