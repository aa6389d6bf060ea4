#include "support/Chain.h"

#include <tarncommon/error/ErrorApi.h>
#include <tarncommon/error/ErrorObject.h>
#include <tarncommon/error/ErrorStorage.h>

#include <cstring>

namespace support {

testing::AssertionResult chainIs(std::vector<ExpectedReport> const& expected) {
    std::vector<std::ErrorObject const*> reports;
    for (auto const* report = std::ErrorStorage::get(); report != nullptr; report = report->next) {
        reports.insert(reports.begin(), report);
    }
    bool same = reports.size() == expected.size();
    for (size_t i = 0; same && i < expected.size(); ++i) {
        same = reports[i]->getType() == expected[i].family && reports[i]->getID() == expected[i].id &&
            (!expected[i].text || *expected[i].text == reports[i]->getText());
    }
    std::ErrorStorage::ack();
    if (same) {
        return testing::AssertionSuccess();
    }
    testing::AssertionResult failure = testing::AssertionFailure();
    failure << "expected, root cause first:";
    for (ExpectedReport const& report : expected) {
        failure << "\n  family " << report.family << " id " << report.id << " "
                << report.text.value_or("(any text)");
    }
    failure << "\npending, root cause first:";
    for (auto const* report : reports) {
        failure << "\n  family " << report->getType() << " id " << report->getID() << " "
                << report->getText();
    }
    return failure;
}

std::string systemText(int error_number) {
    char buffer[256];
    return std::string(strerror_r(error_number, buffer, sizeof buffer)) +
        " (errno = " + std::to_string(error_number) + ")";
}

std::string rowText(std::ErrorType const& family, int id, std::string const& argument) {
    std::string text = family.getRow(id)->format;
    size_t const conversion = text.find("%s");
    return conversion == std::string::npos ? text : text.replace(conversion, 2, argument);
}

testing::AssertionResult causeIs(std::ErrorType const& family, int id, int error_number) {
    return chainIs({{family, id, rowText(family, id, systemText(error_number))}});
}

} // namespace support
