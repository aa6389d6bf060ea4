#include "FileTests.h"
#include "support/calls/MapCalls.h"

#include <vesk/MemBinFileBase.h>
#include <vesk/Vesk.h>

namespace {

using namespace support;
using vesk::MemBinFileBase;
using vesk::MemMapping;
using vesk::Vesk;

static_assert(std::is_base_of_v<BinFileBase, MemBinFileBase>);

constexpr auto READ_WRITE = MemMapping::READ | MemMapping::WRITE;

/// Makes protected members visible.
class File : public MemBinFileBase {
public:
    size_t getMappingCount() const { return m_mappings.size(); }
};

class MemBinFileBaseTest : public FileTest {
protected:
    MemBinFileBaseTest() : FileTest(std::string(4UL * Vesk::s_sys_info.page_size, 'a')) {
        EXPECT_FALSE(m_file.open(m_path.c_str(), m_file.READ_WRITE, m_file.DEFAULT_ACCESS));
    }

    MemMapping add(unsigned int offset = 0) {
        MemMapping const mapping = m_file.addMapping(READ_WRITE, m_page, offset);
        EXPECT_TRUE(mapping.isValid());
        return mapping;
    }

    unsigned int m_page = Vesk::s_sys_info.page_size;
    File m_file;
};

TEST_F(MemBinFileBaseTest, mapsItsFileAndKeepsNoFailedMapping) {
    MemMapping const mapping = add(m_page);
    static_cast<char*>(mapping.getAddress())[2] = 'X';
    EXPECT_EQ("aaXa", contentOf(m_path).substr(m_page, 4));
    MemMapping const ring = m_file.addMapping(MemMapping::READ, m_page, m_page, nullptr, true);
    ASSERT_TRUE(ring.isValid());
    EXPECT_EQ('X', static_cast<char*>(ring.getAddress())[m_page + 2]);
    EXPECT_EQ(2U, m_file.getMappingCount());
    EXPECT_FALSE(m_file.addMapping(READ_WRITE, 0).isValid());
    EXPECT_TRUE(causeIs(SysErrorId::INVALID_PARAMETER, EINVAL));
    EXPECT_FALSE(File().addMapping(READ_WRITE, m_page).isValid()) << "of a closed file";
    EXPECT_TRUE(causeIs(SysErrorId::SPOILED_INTEGRITY, EBADF));
    EXPECT_EQ(2U, m_file.getMappingCount());
}

TEST_F(MemBinFileBaseTest, mappingIsRemovedOnceAndOnlyByItsFile) {
    MemMapping const mapping = add();
    File other;
    EXPECT_FALSE(other.open(m_path.c_str(), other.READ, other.DEFAULT_ACCESS));
    EXPECT_TRUE(other.removeMapping(mapping));
    EXPECT_TRUE(isContractBroken("Attempt to remove a mapping that isn't registered"));
    EXPECT_EQ(m_page, mappedBytes(m_path));
    EXPECT_FALSE(m_file.removeMapping(mapping));
    EXPECT_EQ(0U, mappedBytes(m_path));
    EXPECT_TRUE(m_file.removeMapping(mapping));
    EXPECT_TRUE(isContractBroken("Attempt to remove a mapping that isn't registered"));
}

TEST_F(MemBinFileBaseTest, mappingThatCannotBeUnmappedIsStillDiscarded) {
    MemMapping mapping = add();
    Fault const fault(inject_munmap, ENOMEM);
    EXPECT_TRUE(m_file.removeMapping(mapping));
    EXPECT_TRUE(causeIs(SysErrorId::SPOILED_INTEGRITY, ENOMEM));
    EXPECT_EQ(0U, m_file.getMappingCount());
    EXPECT_FALSE(mapping.destroy());
}

TEST_F(MemBinFileBaseTest, closeUnmapsEveryMappingFromTheLowestEvenIfOneFails) {
    add();
    add(m_page);
    add(2 * m_page);
    MapCalls const calls;
    {
        Fault const fault(inject_munmap, ENOMEM, 2);
        EXPECT_TRUE(m_file.close());
    }
    EXPECT_TRUE(hasFailed(m_file, SysErrorId::SPOILED_INTEGRITY, ENOMEM));
    EXPECT_EQ(0U, m_file.getMappingCount());
    EXPECT_FALSE(m_file.isValid());
    ASSERT_EQ(3U, calls.get().size());
    EXPECT_LT(calls.get()[0].address, calls.get()[1].address);
    EXPECT_LT(calls.get()[1].address, calls.get()[2].address);
    EXPECT_EQ(m_page, mappedBytes(m_path)) << "the one that failed";
    EXPECT_EQ(0, munmap(calls.get()[1].address, m_page));
}

TEST_F(MemBinFileBaseTest, closeReportsItsLastFailure) {
    MemMapping mapping = add();
    Fault const unmapping(inject_munmap, ENOMEM);
    Fault const closing(inject_close, EIO);
    EXPECT_TRUE(m_file.close());
    EXPECT_TRUE(causeIs(SysErrorId::INPUT_OUTPUT, EIO));
    EXPECT_TRUE(m_file.isValid());
    EXPECT_EQ(0U, m_file.getMappingCount());
    EXPECT_FALSE(mapping.destroy());
}

TEST_F(MemBinFileBaseTest, openingAnotherFileUnmapsTheMappingsAndCloseClosesIt) {
    add();
    EXPECT_FALSE(m_file.open(m_folder.makeFile("other").c_str(), m_file.READ, m_file.DEFAULT_ACCESS));
    EXPECT_EQ(0U, mappedBytes(m_path));
    EXPECT_EQ(0U, m_file.getMappingCount());
    EXPECT_TRUE(m_file.isValid());
    EXPECT_EQ(0, getSlot(&MemBinFileBase::isValid));
    EXPECT_EQ(1, getSlot(&MemBinFileBase::close));
    EXPECT_FALSE(m_file.close());
    EXPECT_FALSE(m_file.isValid());
    EXPECT_FALSE(m_file.close());
}

TEST_F(MemBinFileBaseTest, destructorUnmapsTheMappingsAndWarnsAboutAFailure) {
    EventRecorder const events;
    for (int const error : {0, ENOMEM}) {
        MapCalls const calls;
        auto* const file = new File;
        EXPECT_FALSE(file->open(m_path.c_str(), file->READ, file->DEFAULT_ACCESS));
        EXPECT_TRUE(file->addMapping(MemMapping::READ, m_page).isValid());
        {
            Fault const fault(inject_munmap, error);
            delete file;
        }
        EXPECT_EQ(
            error == 0 ? ""
                       : "WARNING framework/src/vesk/posix/MemBinFileBase ~MemBinFileBase: Error closing "
                         "membinfile",
            events.getText());
        EXPECT_TRUE(chainIs({}));
        EXPECT_EQ(error == 0 ? 0 : m_page, mappedBytes(m_path));
        munmap(calls.get()[0].result, m_page);
    }
}

} // namespace
