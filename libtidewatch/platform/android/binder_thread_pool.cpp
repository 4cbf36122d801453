// A process that only makes binder calls gets no incoming work while no thread pool runs: the
// driver queues callbacks and death notifications for the process's pool threads, never for a
// thread that is merely waiting on the answer to its own call. The command road of the tool only
// makes calls, so it starts no pool (a death during a command shows as the failed call instead).
// A trap receiver must be called back, so the first trap-callback registration starts the pool of
// the generation it registers with, before the service can hold the callback and call it.
//
// One thread per pool: the service pushes traps one after another, a single thread keeps them in
// order, and the rare death notification can wait behind a trap.
#include "libtidewatch/platform/android/binder_thread_pool.h"

#include <android/binder_process.h>
#include <hidl/HidlTransportSupport.h>
#include <hwbinder/ProcessState.h>

#include <mutex>

#include "libtidewatch/platform/log.h"

namespace libtidewatch {

void StartBinderThreadPoolOnce() {
  static std::once_flag once;
  std::call_once(once, [] {
    // A pool that some other part of the process started serves our callbacks as well; resizing
    // it below its size would abort.
    if (ABinderProcess_isThreadPoolStarted()) return;
    // The pool's first thread is started by startThreadPool itself; 0 lets the driver add none.
    if (!ABinderProcess_setThreadPoolMaxThreadCount(0)) {
      TW_LOGW("binder thread pool: cannot limit its size");
    }
    ABinderProcess_startThreadPool();
    TW_LOGD("binder thread pool started");
  });
}

void StartHwBinderThreadPoolOnce() {
  static std::once_flag once;
  std::call_once(once, [] {
    // One thread, spawned by startThreadPool because no caller joins the pool.
    android::hardware::configureRpcThreadpool(1, false /* callerWillJoin */);
    android::hardware::ProcessState::self()->startThreadPool();
    TW_LOGD("hwbinder thread pool started");
  });
}

}  // namespace libtidewatch
