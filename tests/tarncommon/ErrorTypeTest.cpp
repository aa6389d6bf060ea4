#include "ErrorTypeEarly.h"
#include "support/Testing.h"

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

TEST(ErrorType, worksInTheFirstInitializer) {
    EXPECT_TRUE(early::outcome.was_common);
    EXPECT_TRUE(early::outcome.was_system);
    EXPECT_TRUE(early::outcome.was_mutex_of_system);
    EXPECT_EQ(2, early::outcome.id);
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
