#include "support/Chain.h"
#include "support/TempFolder.h"

#include <tarncommon/error/CommonError.h>
#include <vesk/MemMapping.h>
#include <vesk/Vesk.h>

#include <fcntl.h>
#include <unistd.h>

/// A system with the pages of other kernels for the target's processors. Each of them is a whole number of
/// this system's pages, so that the mappings of the library also work here.
extern "C" long __sysconf(int name);
extern "C" __attribute__((no_sanitize("thread", "address"))) long sysconf(int name) {
    return name == _SC_PAGESIZE ? 65536 : __sysconf(name);
}

namespace {

using support::chainIs;
using vesk::MemMapping;

TEST(MemMappingLargePages, ringMustBeOfWholePagesOfTheSystem) {
    ASSERT_EQ(65536U, vesk::Vesk::s_sys_info.page_size);
    support::TempFolder const folder;
    int const fd = open(folder.makeFile("object", std::string(131072, 'a')).c_str(), O_RDWR | O_CLOEXEC);
    for (unsigned int const length : {65536U, 131072U}) {
        SCOPED_TRACE(length);
        MemMapping ring(fd, MemMapping::READ | MemMapping::WRITE, length, 0, nullptr, true);
        ASSERT_TRUE(ring.isValid());
        auto* const bytes = static_cast<char*>(ring.getAddress());
        bytes[length - 1] = 'X';
        EXPECT_EQ('X', bytes[2 * length - 1]);
        EXPECT_EQ(2 * length, ring.getSize());
        EXPECT_FALSE(ring.destroy());
    }
    for (unsigned int const length : {4096U, 16384U, 65536U + 4096U, 98304U}) {
        MemMapping const ring(fd, MemMapping::READ, length, 0, nullptr, true);
        EXPECT_FALSE(ring.isValid());
        EXPECT_TRUE(chainIs({{std::CommonErrorId::CONTRACT_BROKEN}})) << length;
    }
    close(fd);
}

} // namespace
