#pragma once

#include "LocalOperations.h"
#include "OutsideOperations.h"

#include <iterator>
#include <vector>

namespace operations {

/// Returns all rows.
inline std::vector<Row> getRows() {
    std::vector<Row> rows(std::begin(LOCAL_ROWS), std::end(LOCAL_ROWS));
    rows.insert(rows.end(), std::begin(OUTSIDE_ROWS), std::end(OUTSIDE_ROWS));
    return rows;
}

/// The state that the operations need, once per process.
inline void setUp() {
    static vesk::Vesk const s_vesk(true, false);
    // Exist during all tests, so that no test creates and ends their threads.
    static vesk::SignalCatcher const s_catcher(
        SIGRTMIN + 9, [](int, void*) {}, nullptr);
    sem_close(sem_open(("/" + getName("attached")).c_str(), O_CREAT, 0600, 1));
    close(open(g_file.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    g_timer = std::make_unique<vesk::Timer>([](vesk::Timer*) {}, false);
}

} // namespace operations
