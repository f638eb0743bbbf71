#include "platform/ThreadName.h"

#include <cstring>
#include <pthread.h>

namespace ts {

void setCurrentThreadName(const char* name) {
    char shortName[16];
    std::strncpy(shortName, name, sizeof shortName - 1);
    shortName[sizeof shortName - 1] = '\0';
    pthread_setname_np(pthread_self(), shortName);
}

} // namespace ts
