#pragma once

#include "support/Inject.h"
