#pragma once

#include "support/Child.h"

#include <tarncommon/error/GlobalErrorHandler.h>

#include <gtest/gtest.h>

#include <csignal>

namespace support {

/// Checks that `body` aborts a child, which writes `text` to standard error.
inline testing::AssertionResult abortsWith(std::string const& text, std::function<void()> const& body) {
    ChildEnd const end = runInChild([&] {
        std::GlobalErrorHandler::setHook(nullptr); // That of the test would survive the event.
        body();
    });
    if (end.signal == SIGABRT && end.errors.find(text) != std::string::npos) {
        return testing::AssertionSuccess();
    }
    return testing::AssertionFailure() << "exit code " << end.exit_code << ", signal " << end.signal << "\n"
                                       << end.output << end.errors;
}

} // namespace support
