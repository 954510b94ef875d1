// Test support: puts the process-wide GA4 client back to its first state
// (empty queue, first-start markers not sent, no log, default timeout and
// target) so that tests in one process do not see each other's batches.
#pragma once

namespace zdr::detail {

void resetGoogleAnalytics4ForTesting();

}  // namespace zdr::detail
