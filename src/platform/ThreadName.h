#pragma once
// Names the calling thread as it shows in debuggers and in /proc (at most 15
// characters are kept: the kernel's limit).

namespace ts {
void setCurrentThreadName(const char* name);
}
