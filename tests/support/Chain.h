#pragma once

#include <gtest/gtest.h>

#include <tarncommon/error/ErrorType.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace support {

/// What a test expects of one report. Without a text, any text will do.
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

/// Whether the calling thread's pending chain is exactly this, told in the order of its making: the root cause first.
/// An empty list means that nothing is pending. Acknowledges the chain.
testing::AssertionResult chainIs(std::vector<ExpectedReport> const& expected);

/// The text that reports show for an error number.
std::string systemText(int error_number);

/// The report of a family's row with the text of an error number as its argument, for rows that end in "%s".
std::string rowText(std::ErrorType const& family, int id, std::string const& argument);
template <typename Id, typename = decltype(familyOf(std::declval<Id>()))>
std::string rowText(Id id, std::string const& argument) {
    return rowText(familyOf(id), id, argument);
}

/// Whether the pending chain is one report of this row with the text of an error number. Acknowledges the chain.
testing::AssertionResult causeIs(std::ErrorType const& family, int id, int error_number);
template <typename Id, typename = decltype(familyOf(std::declval<Id>()))>
testing::AssertionResult causeIs(Id id, int error_number) {
    return causeIs(familyOf(id), id, error_number);
}

} // namespace support
