#pragma once
// A value received from a DMX interface, as the hardware layer posts it under
// "response" in "LODMXDidReceiveChannelValueNotification".

#include <cstdint>

class LOHWBridge;

struct LODMXResponse {
    int code = 0;
    unsigned channel = 0; // 1..512
    unsigned value = 0;   // 0..255
    LOHWBridge* bridge = nullptr;
};
