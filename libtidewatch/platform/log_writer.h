// The one platform-specific step of logging: writing a message that passed the threshold. Each
// half of the seam (android/, host/) implements it; only log.cpp calls it.
#pragma once

namespace libtidewatch {

void PlatformLogWrite(int priority, const char* tag, const char* text);

}  // namespace libtidewatch
