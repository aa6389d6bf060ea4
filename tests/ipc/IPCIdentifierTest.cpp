#include "support/Chain.h"

#include <tarncommon/error/CommonError.h>
#include <vesk/IPCIdentifier.h>

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

using support::chainIs;
using support::ExpectedReport;
using support::rowText;
using vesk::IPC_NAME_SIZE;
using vesk::transformToIPCIdentifier;

ExpectedReport unusable(char const* text) {
    return {
        std::CommonError, std::CommonErrorId::INVALID_ARGUMENT,
        rowText(std::CommonErrorId::INVALID_ARGUMENT, text)};
}

ExpectedReport tooLong() {
    return {
        std::CommonError, std::CommonErrorId::UNSUPPORTED_VALUE,
        rowText(std::CommonErrorId::UNSUPPORTED_VALUE, "given IPC name is too long")};
}

/// A buffer whose bytes behind the result can be looked at.
class IPCIdentifierTest : public testing::Test {
protected:
    IPCIdentifierTest() { memset(m_result, 'x', sizeof m_result); }

    bool isUntouchedFrom(size_t position) const {
        for (size_t i = position; i < sizeof m_result; ++i) {
            if (m_result[i] != 'x') {
                return false;
            }
        }
        return true;
    }

    char m_result[512];
};

TEST_F(IPCIdentifierTest, systemNameIsASeparatorAndTheName) {
    EXPECT_FALSE(transformToIPCIdentifier("orders", m_result, IPC_NAME_SIZE));
    EXPECT_STREQ("/orders", m_result);
    EXPECT_TRUE(isUntouchedFrom(8));
    EXPECT_TRUE(chainIs({}));
}

TEST_F(IPCIdentifierTest, emptyNameGivesTheSeparatorAlone) {
    EXPECT_FALSE(transformToIPCIdentifier("", m_result, IPC_NAME_SIZE));
    EXPECT_STREQ("/", m_result);
    EXPECT_TRUE(chainIs({}));
}

TEST_F(IPCIdentifierTest, nameOf254CharactersFits) {
    std::string const name(254, 'n');
    EXPECT_FALSE(transformToIPCIdentifier(name.c_str(), m_result, IPC_NAME_SIZE));
    EXPECT_EQ("/" + name, m_result);
    EXPECT_TRUE(isUntouchedFrom(256));
    EXPECT_TRUE(chainIs({}));
}

TEST_F(IPCIdentifierTest, nameOf255CharactersIsTooLong) {
    EXPECT_TRUE(transformToIPCIdentifier(std::string(255, 'n').c_str(), m_result, IPC_NAME_SIZE));
    EXPECT_TRUE(chainIs({tooLong()}));
    EXPECT_EQ("/" + std::string(254, 'n'), m_result);
    EXPECT_TRUE(isUntouchedFrom(256));
}

TEST_F(IPCIdentifierTest, separatorAnywhereIsRefused) {
    for (char const* const name : {"/orders", "or/ders", "orders/", "/", "//"}) {
        EXPECT_TRUE(transformToIPCIdentifier(name, m_result, IPC_NAME_SIZE)) << name;
        EXPECT_TRUE(chainIs({unusable("path separator found in IPC name")})) << name;
    }
}

TEST_F(IPCIdentifierTest, separatorEndsTheResult) {
    EXPECT_TRUE(transformToIPCIdentifier("or/ders", m_result, IPC_NAME_SIZE));
    EXPECT_STREQ("/or", m_result);
    EXPECT_TRUE(chainIs({unusable("path separator found in IPC name")}));
}

TEST_F(IPCIdentifierTest, separatorRightBehindTheLastCharacterThatFitsIsWhatIsTold) {
    std::string const name = std::string(254, 'n') + "/more";
    EXPECT_TRUE(transformToIPCIdentifier(name.c_str(), m_result, IPC_NAME_SIZE));
    EXPECT_TRUE(chainIs({unusable("path separator found in IPC name")}));
}

TEST_F(IPCIdentifierTest, separatorFurtherBehindIsNotSeen) {
    std::string const name = std::string(255, 'n') + "/more";
    EXPECT_TRUE(transformToIPCIdentifier(name.c_str(), m_result, IPC_NAME_SIZE));
    EXPECT_TRUE(chainIs({tooLong()}));
}

TEST_F(IPCIdentifierTest, sizeLimitsTheName) {
    EXPECT_FALSE(transformToIPCIdentifier("abc", m_result, 5));
    EXPECT_STREQ("/abc", m_result);
    EXPECT_TRUE(isUntouchedFrom(5));
    EXPECT_TRUE(transformToIPCIdentifier("abcd", m_result, 5));
    EXPECT_STREQ("/abc", m_result);
    EXPECT_TRUE(isUntouchedFrom(5));
    EXPECT_TRUE(chainIs({tooLong()}));
}

TEST_F(IPCIdentifierTest, sizeOf2CopiesNothing) {
    EXPECT_FALSE(transformToIPCIdentifier("", m_result, 2));
    EXPECT_STREQ("/", m_result);
    EXPECT_TRUE(chainIs({}));
    EXPECT_TRUE(transformToIPCIdentifier("a", m_result, 2));
    EXPECT_STREQ("/", m_result);
    EXPECT_TRUE(isUntouchedFrom(2));
    EXPECT_TRUE(chainIs({tooLong()}));
}

TEST_F(IPCIdentifierTest, nothingToReadOrWriteIsRefusedBeforeAnythingIsWritten) {
    ExpectedReport const refused = unusable("null ptr. or zero size turned in");
    EXPECT_TRUE(transformToIPCIdentifier(nullptr, m_result, IPC_NAME_SIZE));
    EXPECT_TRUE(chainIs({refused}));
    EXPECT_TRUE(transformToIPCIdentifier("orders", nullptr, IPC_NAME_SIZE));
    EXPECT_TRUE(chainIs({refused}));
    EXPECT_TRUE(transformToIPCIdentifier("orders", m_result, 0));
    EXPECT_TRUE(chainIs({refused}));
    EXPECT_TRUE(isUntouchedFrom(0));
}

} // namespace
