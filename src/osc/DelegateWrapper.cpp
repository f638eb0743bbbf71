#include "osc/DelegateWrapper.h"

void DelegateWrapper::dispatchRawPacket(std::span<const uint8_t> datagram) {
    if (target_)
        target_(datagram);
}
