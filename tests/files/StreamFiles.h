#pragma once

#include "FileTests.h"
#include "support/Chain.h"
#include "support/TempFolder.h"
#include "support/calls/FileCalls.h"

#include <tarncommon/error/CommonError.h>

#include <gtest/gtest.h>

#include <cstring>
#include <ostream>
#include <string>

/// What the tests of the stream files share. Include it in one file of a test program, as it includes `FileCalls.h`.

namespace support {

/// A number that a system call fails with, the report of its cause, and what is told on top, for the stream.
struct StreamRow {
    int error;
    int cause;
    int on_top;
};

inline void PrintTo(StreamRow const& row, std::ostream* out) {
    *out << strerrorname_np(row.error);
}

/// How `open` fails for an object that could not have its buffer.
inline testing::AssertionResult openIsRefused() {
    using std::CommonError;
    return chainIs(
        {{std::CommonErrorId::CONTRACT_BROKEN,
          rowText(std::CommonErrorId::CONTRACT_BROKEN, "Attempted open on invalid object")}});
}

/// How `attempt` ("read", "write", "flush") fails without an open file.
inline testing::AssertionResult closedFileIsTold(std::string const& attempt) {
    using std::CommonError;
    std::string const text = "attempted " + attempt + " on invalid file object";
    return chainIs(
        {{std::CommonErrorId::CONTRACT_BROKEN, rowText(std::CommonErrorId::CONTRACT_BROKEN, text)},
         {std::IBinStreamBase::StreamErrorId::UNUSABLE}});
}

/// A file with some content, alone in its folder.
class StreamFileTest : public testing::Test {
protected:
    explicit StreamFileTest(std::string const& content) : m_path(m_folder.makeFile("file", content)) {}

    TempFolder m_folder;
    std::string m_path;
    unsigned int m_position = 12345; ///< For `seek`.
};

} // namespace support
