#include "support/CleanEnd.h"
#include "support/Testing.h"

#include <vesk/UserFS.h>

namespace {

using support::chainIs;
using vesk::UserFS;

static_assert(std::is_empty_v<UserFS>);

TEST(UserFS, mountAlwaysFails) {
    for (bool const no_effect : {false, true}) {
        UserFS file_system(no_effect);
        for (char const* const path : {"/mnt", "", static_cast<char const*>(nullptr)}) {
            EXPECT_TRUE(file_system.mount(path, nullptr));
            EXPECT_TRUE(chainIs(
                {{vesk::SysErrorId::NOT_IMPLEMENTED, "Function not implemented: No FUSE available"}}));
        }
    }
}

TEST(UserFS, initAndUnmountSucceed) {
    EXPECT_FALSE(UserFS::init());
    UserFS file_system(true);
    EXPECT_FALSE(file_system.unmount());
}

} // namespace
