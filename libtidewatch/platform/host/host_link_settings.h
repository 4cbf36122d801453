// The host HAL link's settings from the environment: how long a lookup keeps trying to connect and
// how long one call waits for its answer. Read at each use, so a test may change them between
// calls.
#pragma once

namespace libtidewatch {

// TIDEWATCH_HAL_WAIT_MS: how long the blocking lookup keeps trying, in milliseconds (1000).
long HalWaitMs();

// TIDEWATCH_HAL_CALL_TIMEOUT_MS: the longest one request on the link waits for its answer, in
// milliseconds (5000).
long HalCallTimeoutMs();

}  // namespace libtidewatch
