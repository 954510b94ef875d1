// Test support: puts the process-wide GA4 client back to its first state
// (empty queue, first-start markers not sent, no log, default timeout and
// target) so that tests in one process do not see each other's batches.
#pragma once

#include <vector>

#include "zdr/analytics/ga4_event.h"

namespace zdr::detail {

void resetGoogleAnalytics4ForTesting();
/// Replaces the queue without running the queue observer (no send is
/// scheduled), for benchmarks that measure appends to a queue of a given size.
void setGoogleAnalytics4QueueForTesting(const std::vector<GA4Event>& queue);

}  // namespace zdr::detail
