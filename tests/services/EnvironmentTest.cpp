#include "support/CleanEnd.h"
#include "support/Testing.h"

#include <vesk/Environment.h>

namespace {

using vesk::Environment;

static_assert(sizeof(Environment) == 2 * sizeof(char**));

/// Replaces the rows of the process during its lifetime.
class OwnRows {
public:
    explicit OwnRows(char** rows) : m_before(environ) { environ = rows; }
    ~OwnRows() { environ = m_before; }
    OwnRows(OwnRows const&) = delete;
    OwnRows& operator=(OwnRows const&) = delete;

private:
    char** m_before;
};

char s_a[] = "A=1";
char s_b[] = "B=";
char s_c[] = "C=x=y";

std::vector<std::string> list(Environment const& environment) {
    return {environment.begin(), environment.end()};
}

TEST(Environment, variableHasItsValueWithoutACopyOrIsEmpty) {
    for (char const* const value : {"some value", ""}) {
        ASSERT_EQ(0, setenv("VESK_TEST_VARIABLE", value, 1));
        EXPECT_STREQ(value, Environment::getVariable("VESK_TEST_VARIABLE"));
        EXPECT_EQ(getenv("VESK_TEST_VARIABLE"), Environment::getVariable("VESK_TEST_VARIABLE"));
    }
    ASSERT_EQ(0, unsetenv("VESK_TEST_VARIABLE"));
    for (char const* const unset : {"VESK_TEST_VARIABLE", "", "A=B"}) {
        EXPECT_STREQ("", Environment::getVariable(unset)) << "not null";
    }
}

TEST(Environment, ucsIteratorsAreTheSameAsTheOthers) {
    Environment const environment;
    EXPECT_EQ(environ, environment.begin());
    EXPECT_EQ(environment.begin(), environment.begin_ucs());
    EXPECT_EQ(environment.end(), environment.end_ucs());
    EXPECT_EQ(nullptr, *environment.end());
}

TEST(Environment, walksTheRowsThatThereAreAtItsConstruction) {
    char* rows[] = {s_a, s_b, s_c, nullptr, nullptr};
    OwnRows const own(rows);
    Environment const environment;
    EXPECT_TRUE(environment.isValid());
    EXPECT_EQ(rows, environment.begin());
    EXPECT_EQ(rows + 3, environment.end());
    EXPECT_EQ((std::vector<std::string>{"A=1", "B=", "C=x=y"}), list(environment));
    EXPECT_STREQ("x=y", Environment::getVariable("C"));
    rows[3] = s_a;
    EXPECT_EQ(3u, list(environment).size());
    EXPECT_EQ(4u, list(Environment()).size());
    rows[0] = s_c;
    EXPECT_EQ("C=x=y", list(environment)[0]) << "only the bounds are kept";
}

TEST(Environment, isEmptyWithoutRowsAndWhenCleared) {
    support::expectInChild([] {
        char* rows[] = {nullptr};
        for (bool const clear : {false, true}) {
            OwnRows const own(rows);
            EXPECT_EQ(0, clear ? clearenv() : 0);
            Environment const environment;
            EXPECT_TRUE(environment.isValid());
            EXPECT_EQ(environment.begin(), environment.end());
            EXPECT_EQ(environment.begin_ucs(), environment.end_ucs());
            EXPECT_STREQ("", Environment::getVariable("PATH"));
        }
    });
}

} // namespace
