#include "support/Testing.h"

#include <vesk/Mutex.h>

#include <tarncommon/error/ErrorType.h>

namespace {

constexpr std::ErrorID ROWS[] = {{0, "zero", 0}, {1, "one %s", 1}};
TARN_CONSTANT_INIT std::ErrorType const parent(ROWS, 2);
TARN_CONSTANT_INIT std::ErrorType const child(ROWS, 2, parent);
TARN_CONSTANT_INIT std::ErrorType const grandchild(ROWS, 1, child);
TARN_CONSTANT_INIT std::ErrorType const unrelated(ROWS, 2);

TEST(ErrorType, isItselfAndEachOfItsAncestorsAndNoOtherFamily) {
    EXPECT_TRUE(parent.isA(parent));
    EXPECT_TRUE(child.isA(parent));
    EXPECT_TRUE(grandchild.isA(parent));
    EXPECT_TRUE(grandchild.isA(child));
    EXPECT_FALSE(parent.isA(child));
    EXPECT_FALSE(child.isA(unrelated)) << "the same table does not make the same family";
}

TEST(ErrorType, returnsItsRowsAndNoOthers) {
    EXPECT_EQ(&ROWS[0], child.getRow(0));
    EXPECT_EQ(&ROWS[1], child.getRow(1));
    EXPECT_EQ(nullptr, child.getRow(2));
    EXPECT_EQ(nullptr, grandchild.getRow(1));
    EXPECT_EQ(nullptr, child.getRow(-1));
    EXPECT_EQ(nullptr, child.getRow(INT_MIN));
    EXPECT_EQ(nullptr, child.getRow(INT_MAX));
}

/// Reports with families of the libraries and of this program.
struct Early {
    Early() {
        std::ErrorOutput("early", 1, true)(std::CommonErrorId::UNSUPPORTED_VALUE, "early");
        was_common = std::ErrorStorage::isA(std::CommonError);
        std::ErrorOutput("early", 2, true)(grandchild, 0);
        was_child = std::ErrorStorage::isA(parent);
        std::ErrorOutput("early", 3, true)(vesk::SysErrorId::UNCLASSIFIED, "early");
        was_system = std::ErrorStorage::isA(vesk::SysError);
        std::ErrorOutput("early", 4, false)(vesk::Mutex::ErrorId::UNLOCK_FAILED, "early");
        was_mutex_of_system =
            std::ErrorStorage::isA(vesk::Mutex::Error) && std::ErrorStorage::isA(vesk::SysError);
        id = std::ErrorStorage::id();
        std::ErrorStorage::ack();
    }

    bool was_common;
    bool was_child;
    bool was_system;
    bool was_mutex_of_system;
    int id;
};

// The priority moves it before every initializer of this program without one.
__attribute__((init_priority(101))) Early const s_early;

TEST(ErrorType, worksInTheFirstInitializer) {
    EXPECT_TRUE(s_early.was_common && s_early.was_child);
    EXPECT_TRUE(s_early.was_system);
    EXPECT_TRUE(s_early.was_mutex_of_system);
    EXPECT_EQ(2, s_early.id);
}

TEST(ErrorID, hasItsFieldsInOrder) {
    static_assert(sizeof(std::ErrorID::id) == 4 && sizeof(std::ErrorID::nargs) == 4);
    EXPECT_EQ(0u, offsetof(std::ErrorID, id));
    EXPECT_LT(offsetof(std::ErrorID, id), offsetof(std::ErrorID, format));
    EXPECT_LT(offsetof(std::ErrorID, format), offsetof(std::ErrorID, nargs));
}

TEST(CommonError, hasTheRowsThatTheLibraryUses) {
    int const nargs[] = {0, 1, 0, 1, 1, 1, 1};
    for (int id = 0; id < 7; ++id) {
        ASSERT_NE(nullptr, std::CommonError.getRow(id));
        EXPECT_EQ(id, std::CommonError.getRow(id)->id);
        EXPECT_EQ(nargs[id], std::CommonError.getRow(id)->nargs);
    }
    EXPECT_EQ(nullptr, std::CommonError.getRow(7));
}

} // namespace
