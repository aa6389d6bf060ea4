#include "DnsSdImpl.h"

namespace vesk {

void DnsSdImpl::main(void*) {}

} // namespace vesk
