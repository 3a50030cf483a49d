// The modem manager's watcher decides when a request has expired. Naming,
// refusing and removing modems and the watcher's hang handling run in the
// end-to-end discovery, hot-plug and liveness tests.
#include "core/modem_manager.h"

#include <gtest/gtest.h>

#include "comm/request.h"

namespace
{

// Execution time counts from the write, queue time from queueing; a time
// ends after its last millisecond.
TEST(RequestExpiry, ExecutionTimeCountsFromTheWriteQueueTimeFromQueueing)
{
    const struct {
        bool sent;
        uint32_t timeout, timeout2;
        int64_t now;
        request_expiry expiry;
    } rows[] = {
        {false, 10000, 10000, 110000, request_expiry::none},
        {false, 10000, 10000, 110001, request_expiry::queue},
        {true, 10000, 10000, 111000, request_expiry::none}, // the write restarted the clock
        {true, 10000, 10000, 115001, request_expiry::execution},
        // A local client's 300 ms is not rounded away to nothing.
        {true, 300, 10000, 105300, request_expiry::none},
        {true, 300, 10000, 105301, request_expiry::execution},
        {false, 300, 300, 100300, request_expiry::none},
        {false, 300, 300, 100301, request_expiry::queue},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(testing::Message() << r.sent << " " << r.timeout << " " << r.now);
        request req;
        req.timeout = r.timeout;
        req.timeout2 = r.timeout2;
        req.queued_time = 100000;
        req.sent = r.sent;
        req.sent_time = 105000;
        EXPECT_EQ(check_request_expiry(req, r.now), r.expiry);
    }
}

} // namespace
