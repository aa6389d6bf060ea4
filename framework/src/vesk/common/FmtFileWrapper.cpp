#include <vesk/FmtFileWrapper.h>

namespace vesk {

template class FmtFileWrapper<StreamBinFileR, std::istream, BinFileBase::ReadFlags>;

} // namespace vesk
