// The control layer's functions are exported from the shared library under
// their own names; its internal diagnostics are not.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "tests/support/exported_declarations.h"

TEST(ControlExports, DeclaredFunctionsAreExportedAndInternalsHidden) {
    void* lib = dlopen(KS_SHARED_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(nullptr, lib) << dlerror();
    size_t total = 0;
    for (const char* header :
         {"/control_protocol/uvc_protocol_master.h", "/control_protocol/protocol_master.h",
          "/ks_asic_iic_ctrl/source/ks_iic_kernel.h",
          "/ks_asic_iic_ctrl/source/ks_iic_application_layer.h"}) {
        const std::set<std::string> names =
            exported_declarations(std::string(KS_SOURCE_DIR) + header);
        EXPECT_FALSE(names.empty()) << header;
        total += names.size();
        for (const std::string& name : names)
            EXPECT_NE(nullptr, dlsym(lib, name.c_str())) << name << " is not exported";
    }
    EXPECT_GE(total, 70u);
    for (const char* hidden : {"trylock_uvc_protocol_mutex", "protocol_message_record",
                               "protocol_stream_buffer", "protocol_last_message_id"})
        EXPECT_EQ(nullptr, dlsym(lib, hidden)) << hidden << " is exported";
    dlclose(lib);
}
