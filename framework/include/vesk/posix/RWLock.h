#pragma once

// For programs that include the base by this name.
#include <vesk/posix/RWLockBase.h>
