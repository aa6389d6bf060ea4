#pragma once

/// Includes what most tests use: GoogleTest, the reports and their checks, faults, children, threads, and the common
/// headers of the standard library. Headers that replace functions, or that check each test of the program
/// (CleanEnd.h), are included by the tests that need them.

#include "support/Chain.h"
#include "support/Child.h"
#include "support/ErrnoRows.h"
#include "support/EventRecorder.h"
#include "support/Eventually.h"
#include "support/Inject.h"
#include "support/NamedRow.h"
#include "support/Privileges.h"
#include "support/RunInThreads.h"
#include "support/TestBy.h"

#include <vesk/SysError.h>

#include <tarncommon/error/CommonError.h>
#include <tarncommon/error/ErrorOutput.h>
#include <tarncommon/error/ErrorStorage.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <iterator>
#include <memory>
#include <optional>
#include <pthread.h>
#include <sched.h>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>
#include <type_traits>
#include <unistd.h>
#include <utility>
#include <vector>
