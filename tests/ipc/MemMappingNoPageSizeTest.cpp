#include "support/Chain.h"
#include "support/TempFolder.h"

#include <tarncommon/error/CommonError.h>
#include <vesk/MemMapping.h>
#include <vesk/Vesk.h>

#include <fcntl.h>
#include <unistd.h>

/// A system that does not know its page size.
extern "C" long __sysconf(int name);
extern "C" __attribute__((no_sanitize("thread", "address"))) long sysconf(int name) {
    return name == _SC_PAGESIZE ? -1 : __sysconf(name);
}

namespace {

using support::chainIs;
using vesk::MemMapping;

TEST(MemMappingNoPageSize, everyRingIsRefusedAndPlainMappingsWork) {
    ASSERT_EQ(0U, vesk::Vesk::s_sys_info.page_size);
    support::TempFolder const folder;
    int const fd = open(folder.makeFile("object", std::string(65536, 'a')).c_str(), O_RDONLY | O_CLOEXEC);
    for (unsigned int const length : {0U, 4096U, 65536U}) {
        MemMapping const ring(fd, MemMapping::READ, length, 0, nullptr, true);
        EXPECT_FALSE(ring.isValid());
        EXPECT_TRUE(chainIs({{std::CommonErrorId::CONTRACT_BROKEN}})) << length;
    }
    MemMapping plain(fd, MemMapping::READ, 4096);
    ASSERT_TRUE(plain.isValid());
    EXPECT_EQ('a', *static_cast<char*>(plain.getAddress()));
    EXPECT_FALSE(plain.destroy());
    close(fd);
}

} // namespace
