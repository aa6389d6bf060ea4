#include <tarncommon/PseudoFalse.h>

namespace std {

bool const volatile PSEUDO_FALSE = false;

} // namespace std
