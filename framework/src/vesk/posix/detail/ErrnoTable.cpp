#include "ErrnoTable.h"

#include "SystemErrorText.h"

#include <cstring>

namespace vesk::detail {

Outcome classify(Place place, ErrnoTable table, int error, char const* detail, Chain chain) noexcept {
    for (size_t i = 0; i < table.count; ++i) {
        ErrnoRow const& row = table.rows[i];
        if (!row.errnos.has(error)) {
            continue;
        }
        if (row.cause.telling == Telling::NAME_AND_LENGTH && detail != nullptr) {
            report(place, chain, *row.cause.family, row.cause.id, detail, static_cast<int>(strlen(detail)));
        } else if (row.further != nullptr) {
            report(place, chain, *row.cause.family, row.cause.id, SystemErrorText(error).get(), row.further);
        } else if (row.cause.family != nullptr) {
            report(place, chain, *row.cause.family, row.cause.id, SystemErrorText(error).get());
        }
        if (row.on_top.family != nullptr) {
            report(place, Chain::ON_TOP, *row.on_top.family, row.on_top.id, detail);
        }
        return row.outcome;
    }
    return Outcome::FAILED;
}

Outcome classifyResult(Place place, ErrnoTable table, int error) noexcept {
    errno = error;
    return classify(place, table, error);
}

} // namespace vesk::detail
