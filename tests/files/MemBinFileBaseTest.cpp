#include "FileTests.h"
#include "support/Chain.h"
#include "support/EventRecorder.h"
#include "support/TempFolder.h"
#include "support/VtableSlot.h"
#include "support/calls/FileCalls.h"
#include "support/calls/MapCalls.h"

#include <tarncommon/error/CommonError.h>
#include <vesk/MemBinFileBase.h>
#include <vesk/SysError.h>
#include <vesk/Vesk.h>

#include <gtest/gtest.h>

#include <string>
#include <type_traits>

namespace {

using std::CommonError;
namespace CommonErrorId = std::CommonErrorId;
using support::accessAt;
using support::chainIs;
using support::failureIs;
using support::Fault;
using support::isOpen;
using support::MapCalls;
using support::mappedBytes;
using support::rowText;
using vesk::BinFileBase;
using vesk::MemBinFileBase;
using vesk::MemMapping;
using vesk::Vesk;

static_assert(std::is_base_of_v<BinFileBase, MemBinFileBase>);

constexpr auto READ_WRITE = MemMapping::READ | MemMapping::WRITE;
constexpr char const* WARNING =
    "WARNING framework/src/vesk/posix/MemBinFileBase ~MemBinFileBase: Error closing membinfile";

class File : public MemBinFileBase {
public:
    size_t getMappingCount() const { return m_mappings.size(); }
};

class MemBinFileBaseTest : public testing::Test {
protected:
    MemBinFileBaseTest()
        : m_page(Vesk::s_sys_info.page_size),
          m_path(m_folder.makeFile("file", std::string(4 * m_page, 'a'))) {
        EXPECT_FALSE(m_file.open(m_path.c_str(), m_file.READ_WRITE, m_file.DEFAULT_ACCESS));
    }

    MemMapping add(unsigned int offset = 0) {
        MemMapping const mapping = m_file.addMapping(READ_WRITE, m_page, offset);
        EXPECT_TRUE(mapping.isValid());
        return mapping;
    }

    support::TempFolder m_folder;
    unsigned int m_page;
    std::string m_path;
    File m_file;
};

TEST_F(MemBinFileBaseTest, hasItsOperationsInTheirSlots) {
    EXPECT_EQ(0, support::getSlot(&MemBinFileBase::isValid));
    EXPECT_EQ(1, support::getSlot(&MemBinFileBase::close));
}

TEST_F(MemBinFileBaseTest, mapsItsFile) {
    MemMapping const mapping = add(m_page);
    static_cast<char*>(mapping.getAddress())[2] = 'X';
    EXPECT_EQ("aaXa", support::contentOf(m_path).substr(m_page, 4));
    MemMapping const ring = m_file.addMapping(MemMapping::READ, m_page, m_page, nullptr, true);
    ASSERT_TRUE(ring.isValid());
    EXPECT_EQ('X', static_cast<char*>(ring.getAddress())[m_page + 2]);
    EXPECT_EQ(2U, m_file.getMappingCount());
}

TEST_F(MemBinFileBaseTest, mappingThatFailsIsNotKept) {
    EXPECT_FALSE(m_file.addMapping(READ_WRITE, 0).isValid());
    EXPECT_TRUE(failureIs(EINVAL, 8));
    EXPECT_FALSE(File().addMapping(READ_WRITE, m_page).isValid()) << "of a closed file";
    EXPECT_TRUE(failureIs(EBADF, 10));
    EXPECT_EQ(0U, m_file.getMappingCount());
}

TEST_F(MemBinFileBaseTest, mappingIsRemovedOnce) {
    MemMapping const mapping = add();
    EXPECT_FALSE(m_file.removeMapping(mapping));
    EXPECT_EQ(0U, mappedBytes(m_path));
    EXPECT_TRUE(m_file.removeMapping(mapping));
    EXPECT_TRUE(chainIs(
        {{CommonErrorId::CONTRACT_BROKEN,
          rowText(CommonErrorId::CONTRACT_BROKEN, "Attempt to remove a mapping that isn't registered")}}));
}

TEST_F(MemBinFileBaseTest, mappingOfAnotherFileIsNotRemoved) {
    MemMapping const mapping = add();
    File other;
    EXPECT_FALSE(other.open(m_path.c_str(), other.READ, other.DEFAULT_ACCESS));
    EXPECT_TRUE(other.removeMapping(mapping));
    EXPECT_TRUE(chainIs({{CommonErrorId::CONTRACT_BROKEN}}));
    EXPECT_EQ(m_page, mappedBytes(m_path));
}

TEST_F(MemBinFileBaseTest, mappingThatCannotBeTakenDownIsGivenUpAllTheSame) {
    MemMapping mapping = add();
    {
        Fault const fault(inject_munmap, ENOMEM);
        EXPECT_TRUE(m_file.removeMapping(mapping));
    }
    EXPECT_TRUE(failureIs(ENOMEM, 10));
    EXPECT_EQ(0U, m_file.getMappingCount());
    EXPECT_FALSE(mapping.destroy());
}

TEST_F(MemBinFileBaseTest, closeTakesEveryMappingDownFromTheLowestAlsoWhenOneFails) {
    add();
    add(m_page);
    add(2 * m_page);
    int const fd = m_file.getDescriptor();
    MapCalls const calls;
    {
        Fault const fault(inject_munmap, ENOMEM, 2);
        EXPECT_TRUE(m_file.close());
        EXPECT_TRUE(m_file.hadError());
    }
    EXPECT_TRUE(failureIs(ENOMEM, 10));
    EXPECT_EQ(0U, m_file.getMappingCount());
    EXPECT_FALSE(m_file.isValid());
    EXPECT_FALSE(isOpen(fd));
    ASSERT_EQ(3U, calls.get().size());
    EXPECT_LT(calls.get()[0].address, calls.get()[1].address);
    EXPECT_LT(calls.get()[1].address, calls.get()[2].address);
    EXPECT_EQ(m_page, mappedBytes(m_path)) << "the one that failed";
    EXPECT_EQ(0, munmap(calls.get()[1].address, m_page));
}

TEST_F(MemBinFileBaseTest, lastFailureOfCloseWins) {
    MemMapping mapping = add();
    {
        Fault const unmapping(inject_munmap, ENOMEM);
        Fault const closing(inject_close, EIO);
        EXPECT_TRUE(m_file.close());
    }
    EXPECT_TRUE(failureIs(EIO, 11));
    EXPECT_TRUE(m_file.isValid());
    EXPECT_EQ(0U, m_file.getMappingCount());
    EXPECT_FALSE(mapping.destroy());
}

TEST_F(MemBinFileBaseTest, closeOfAFileWithoutMappingsClosesIt) {
    EXPECT_FALSE(m_file.close());
    EXPECT_FALSE(m_file.isValid());
    EXPECT_FALSE(m_file.close());
    EXPECT_TRUE(chainIs({}));
}

TEST_F(MemBinFileBaseTest, openingAnotherFileTakesTheMappingsDown) {
    add();
    std::string const other = m_folder.makeFile("other", "x");
    EXPECT_FALSE(m_file.open(other.c_str(), m_file.READ, m_file.DEFAULT_ACCESS));
    EXPECT_EQ(0U, mappedBytes(m_path));
    EXPECT_EQ(0U, m_file.getMappingCount());
    EXPECT_TRUE(m_file.isValid());
}

TEST_F(MemBinFileBaseTest, destructorTakesTheMappingsDownAndWarnsOfAFailure) {
    support::EventRecorder const events;
    for (int const error : {0, ENOMEM}) {
        MapCalls const calls;
        int fd = -1;
        {
            File file;
            EXPECT_FALSE(file.open(m_path.c_str(), file.READ, file.DEFAULT_ACCESS));
            EXPECT_TRUE(file.addMapping(MemMapping::READ, m_page).isValid());
            fd = file.getDescriptor();
            Fault const fault(inject_munmap, error);
            file.~File();
            new (&file) File;
        }
        EXPECT_FALSE(isOpen(fd));
        EXPECT_EQ(error == 0 ? "" : WARNING, events.getText());
        EXPECT_TRUE(chainIs({}));
        EXPECT_EQ(error == 0 ? 0 : m_page, mappedBytes(m_path));
        munmap(calls.get()[0].result, m_page);
    }
}

} // namespace
