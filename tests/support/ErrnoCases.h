#pragma once

#include "support/ErrnoRows.h"
