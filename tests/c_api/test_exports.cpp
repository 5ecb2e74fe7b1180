// The shared library exports every function its headers promise, under its
// own unmangled name, and hides everything else.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "tests/support/exported_declarations.h"

namespace {

struct Library {
    Library() : handle(dlopen(KS_SHARED_LIBRARY, RTLD_NOW | RTLD_LOCAL)) {}
    ~Library() {
        if (handle) dlclose(handle);
    }
    void* handle;
};

}  // namespace

TEST(Exports, EveryDeclaredFunctionIsExportedUnderItsOwnName) {
    Library lib;
    ASSERT_NE(nullptr, lib.handle) << dlerror();

    std::set<std::string> names =
        exported_declarations(KS_SOURCE_DIR "/include/ksStereoCameraDriver.h");
    EXPECT_GE(names.size(), 100u);
    for (const char* header :
         {"/common/ks_log.h", "/common/ks_file_utils.h", "/common/ks_platform.h"}) {
        std::set<std::string> more = exported_declarations(std::string(KS_SOURCE_DIR) + header);
        EXPECT_FALSE(more.empty()) << header;
        names.insert(more.begin(), more.end());
    }
    for (const std::string& name : names)
        EXPECT_NE(nullptr, dlsym(lib.handle, name.c_str())) << name << " is not exported";

    // The logging and file utilities every later module relies on.
    for (const char* name : {"log_log",
                             "log_logn",
                             "log_set_level",
                             "log_set_quiet",
                             "log_set_lock",
                             "log_set_udata",
                             "log_set_fp",
                             "log_set_file_path",
                             "log_get_base_filename",
                             "ks_init_log",
                             "ks_destory_log",
                             "ks_file_copy",
                             "ks_mkdir",
                             "ks_split_path",
                             "ks_join_path",
                             "ks_cut",
                             "ks_list_items_by_type_with_filter",
                             "ks_free_list_items",
                             "qsort_string_list",
                             "ksGetAvailableSpaceByByteUnit",
                             "ksGetAvailableSpaceSize"})
        EXPECT_NE(nullptr, dlsym(lib.handle, name)) << name;

    // Internals stay private.
    EXPECT_EQ(nullptr, dlsym(lib.handle,
                             "_ZN15KSCameraFactory18get_camera_by_pathEPKcPP16KSCameraAbstract"));
}
