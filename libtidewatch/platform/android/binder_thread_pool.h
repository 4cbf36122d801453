// Starts the binder thread pools that bring incoming calls (trap callbacks) and death notifications
// into this process, once per process and only when the process is about to receive calls.
#pragma once

namespace libtidewatch {

// The libbinder_ndk pool, used by the AIDL service generation.
void StartBinderThreadPoolOnce();
// The hwbinder pool, used by the HIDL service generation.
void StartHwBinderThreadPoolOnce();

}  // namespace libtidewatch
