#include "support/CleanEnd.h"
#include "support/NewFault.h"
#include "support/Testing.h"

#include <tarncommon/Buf.h>

namespace {

using std::Buf;
namespace CommonErrorId = std::CommonErrorId;
using namespace support;

/// Records its blocks, fills them with a pattern, and can fail.
class TestAllocator final : public Buf::Allocator {
public:
    ~TestAllocator() { EXPECT_TRUE(m_blocks.empty()) << "every block is released"; }

    void* allocate(unsigned int size) const noexcept override {
        ++m_calls;
        if (m_fails) {
            return nullptr;
        }
        void* const memory = malloc(size);
        memset(memory, 0xA5, size);
        m_blocks[memory] = size;
        return memory;
    }

    void release(void* memory, unsigned int size) const noexcept override {
        EXPECT_EQ(1U, m_blocks.count(memory));
        EXPECT_EQ(m_blocks[memory], size);
        m_blocks.erase(memory);
        free(memory);
    }

    void setFailing(bool fails) { m_fails = fails; }
    int getCalls() const { return m_calls; }
    size_t countBlocks() const { return m_blocks.size(); }

private:
    mutable std::map<void*, unsigned int> m_blocks;
    mutable int m_calls = 0;
    bool m_fails = false;
};

Buf makeBuf(char const* text, Buf::Allocator const& allocator = Buf::DEFAULT_ALLOCATOR) {
    Buf result(static_cast<unsigned int>(strlen(text)), allocator);
    memcpy(result.data, text, strlen(text));
    return result;
}

std::string getText(Buf const& buf) {
    return buf.getSize() == 0 ? std::string()
                              : std::string(reinterpret_cast<char const*>(buf.data), buf.getSize());
}

// Constructed before main, with the allocator that must exist by then.
Buf const early = makeBuf("early");

TEST(Buf, hasTheRequestedZeroBytesAndReleasesThemAndOfSizeZeroAllocatesNone) {
    TestAllocator const allocator; // Its destructor checks that every block is released.
    Buf const none(0, allocator);
    Buf const copy(none);
    for (Buf const* const empty : {&none, &copy}) {
        EXPECT_TRUE(empty->isValid());
        EXPECT_EQ(0U, empty->getSize());
        EXPECT_EQ(nullptr, empty->data);
    }
    EXPECT_EQ(0, allocator.getCalls());
    Buf const buf(300, allocator);
    EXPECT_TRUE(buf.isValid());
    ASSERT_EQ(300U, buf.getSize());
    EXPECT_EQ(std::string(300, '\0'), getText(buf));
    EXPECT_EQ(1, allocator.getCalls());
    EXPECT_EQ(1U, allocator.countBlocks());
}

TEST(Buf, copyHasSeparateBytesAlsoInAnInitializer) {
    EXPECT_TRUE(early.isValid());
    EXPECT_EQ("early", getText(early));
    TestAllocator const allocator;
    Buf original = makeBuf("abc", allocator);
    Buf copy(original);
    EXPECT_NE(original.data, copy.data);
    EXPECT_EQ("abc", getText(copy));
    copy.data[0] = 'X';
    EXPECT_EQ("abc", getText(original));
    original.data[1] = 'Y';
    EXPECT_EQ("Xbc", getText(copy));
    EXPECT_EQ(2U, allocator.countBlocks());
}

TEST(Buf, assignmentCopiesAndReleasesTheOldBytesToTheirAllocator) {
    TestAllocator const one;
    TestAllocator const other;
    Buf buf = makeBuf("old bytes", one);
    Buf const source = makeBuf("new", other);
    buf = source;
    EXPECT_EQ("new", getText(buf));
    EXPECT_NE(source.data, buf.data);
    EXPECT_EQ(0U, one.countBlocks());
    EXPECT_EQ(2U, other.countBlocks());
}

TEST(Buf, assignmentToItselfChangesNothing) {
    Buf buf = makeBuf("same");
    unsigned char const* const data = buf.data;
    Buf& alias = buf;
    buf = alias;
    EXPECT_EQ("same", getText(buf));
    buf = std::move(alias);
    EXPECT_EQ("same", getText(buf));
    EXPECT_EQ(data, buf.data);
}

TEST(Buf, movingTransfersTheBytesAndLeavesAnEmptyBlock) {
    TestAllocator const allocator;
    Buf source = makeBuf("abc", allocator);
    unsigned char const* const data = source.data;
    Buf target(std::move(source));
    EXPECT_EQ(data, target.data);
    EXPECT_EQ("abc", getText(target));
    EXPECT_TRUE(source.isValid());
    EXPECT_EQ(0U, source.getSize());
    EXPECT_EQ(nullptr, source.data);
    Buf assigned(5, allocator);
    assigned = std::move(target);
    EXPECT_EQ(data, assigned.data);
    EXPECT_EQ(0U, target.getSize());
    EXPECT_EQ(1U, allocator.countBlocks());
    EXPECT_TRUE(std::is_nothrow_move_constructible_v<Buf>);
    EXPECT_TRUE(std::is_nothrow_move_assignable_v<Buf>);
}

TEST(Buf, withoutMemoryIsInvalidAndReportedAndItsCopyIsInvalidWithoutAReport) {
    TestAllocator allocator;
    allocator.setFailing(true);
    NewFault const fault(New::NOTHROW_SINGLE, 1, NewFault::FOREVER);
    for (Buf::Allocator const* const source :
         {static_cast<Buf::Allocator const*>(&allocator), &Buf::DEFAULT_ALLOCATOR}) {
        Buf const buf(10, *source);
        EXPECT_FALSE(buf.isValid());
        EXPECT_EQ(nullptr, buf.data);
        EXPECT_EQ(0U, buf.getSize());
        EXPECT_TRUE(chainIs({{CommonErrorId::OUT_OF_MEMORY}}));
        allocator.setFailing(false);
        Buf const copy(buf);
        EXPECT_FALSE(copy.isValid());
        EXPECT_EQ(0U, copy.getSize());
        EXPECT_EQ(1, allocator.getCalls());
        EXPECT_TRUE(chainIs({}));
    }
}

TEST(Buf, copyWithoutMemoryIsInvalidAndTheSourceIsNot) {
    TestAllocator allocator;
    Buf const source = makeBuf("abc", allocator);
    Buf target = makeBuf("old", allocator);
    allocator.setFailing(true);
    Buf const copy(source);
    EXPECT_FALSE(copy.isValid());
    EXPECT_TRUE(chainIs({{CommonErrorId::OUT_OF_MEMORY}}));
    target = source;
    EXPECT_FALSE(target.isValid());
    EXPECT_TRUE(chainIs({{CommonErrorId::OUT_OF_MEMORY}}));
    EXPECT_EQ("abc", getText(source));
    EXPECT_EQ(1U, allocator.countBlocks());
}

TEST(Buf, blocksCompareByTheirBytes) {
    TestAllocator const allocator;
    Buf const abc = makeBuf("abc");
    EXPECT_TRUE(abc == makeBuf("abc", allocator));
    EXPECT_FALSE(abc != makeBuf("abc", allocator));
    EXPECT_TRUE(abc != makeBuf("abd"));
    EXPECT_TRUE(abc != makeBuf("ab"));
    EXPECT_TRUE(Buf(0) == Buf(0, allocator));
}

} // namespace
