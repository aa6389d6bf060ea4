#include <vesk/NetworkInterface.h>

#include <net/if.h>

namespace vesk {

NetworkInterface::NetworkInterface(std::string const& name) : m_index(if_nametoindex(name.c_str())) {}

} // namespace vesk
