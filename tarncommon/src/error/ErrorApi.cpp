#include <tarncommon/error/ErrorApi.h>

#include "ChainText.h"

#include <tarncommon/error/ErrorStorage.h>

namespace std {

string ErrorApi::getReasonList() const {
    ErrorObject const* const head = ErrorStorage::Chain::ofThread().getHead();
    string text;
    for (ErrorObject const* report = head; report != nullptr; report = report->next) {
        if (report != head) {
            text += '\n';
        }
        text += tarnbase::detail::ChainLine(*report, report == head).getText();
    }
    return text;
}

} // namespace std

TARN_CONSTANT_INIT std::ProcessErrorApi const tarn_error;
