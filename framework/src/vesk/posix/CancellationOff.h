#pragma once

// Public, since the templates of public headers hold it too.
#include <vesk/common/CancellationOff.h> // IWYU pragma: export
