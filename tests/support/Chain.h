#pragma once

#include <gtest/gtest.h>

#include <tarncommon/error/ErrorType.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace support {

/// The expected content of one report. Without a text, any text matches.
struct ExpectedReport {
    ExpectedReport(std::ErrorType const& report_family, int report_id)
        : family(&report_family), id(report_id) {}
    ExpectedReport(std::ErrorType const& report_family, int report_id, std::string report_text)
        : family(&report_family), id(report_id), text(std::move(report_text)) {}

    template <typename Id, typename = decltype(familyOf(std::declval<Id>()))>
    ExpectedReport(Id report_id) : ExpectedReport(familyOf(report_id), report_id) {}
    template <typename Id, typename = decltype(familyOf(std::declval<Id>()))>
    ExpectedReport(Id report_id, std::string report_text)
        : ExpectedReport(familyOf(report_id), report_id, std::move(report_text)) {}

    std::ErrorType const* family;
    int id;
    std::optional<std::string> text;
};

/// Checks that the calling thread's pending chain is exactly `expected`, in the order in which the reports
/// were made: the root cause first. An empty list means that nothing is pending. Acknowledges the chain.
testing::AssertionResult chainIs(std::vector<ExpectedReport> const& expected);

/// Returns the text that reports show for an error number.
std::string systemText(int error_number);

/// Returns the text of a family's row with `argument` in the place of its "%s".
std::string rowText(std::ErrorType const& family, int id, std::string const& argument);
template <typename Id, typename = decltype(familyOf(std::declval<Id>()))>
std::string rowText(Id id, std::string const& argument) {
    return rowText(familyOf(id), id, argument);
}

/// Checks that the pending chain is a single report of this row with the text of an error number.
/// Acknowledges the chain.
testing::AssertionResult causeIs(std::ErrorType const& family, int id, int error_number);
template <typename Id, typename = decltype(familyOf(std::declval<Id>()))>
testing::AssertionResult causeIs(Id id, int error_number) {
    return causeIs(familyOf(id), id, error_number);
}

} // namespace support
