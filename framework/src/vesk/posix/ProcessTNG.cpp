#include <vesk/ProcessTNG.h>

#include <tarncommon/Export.h>

namespace vesk {

TARN_CONSTANT_INIT char const* const ProcessTNG::ExecutableSuffix = "";

} // namespace vesk
