// Helpers shared by the cache, event and async manager tests.
#pragma once

#include <cstdlib>
#include <memory>
#include <string>

#include <gtest/gtest.h>
#include "wwan/ubox.h"

#include "util/ujson.h"

namespace services_test
{

inline std::string json_text(const ujson &j)
{
    char *s = blobmsg_format_json(j.get_blobmsg(), true);
    std::string out = s ? s : "(null)";
    std::free(s);
    return out;
}

inline std::unique_ptr<ujson> from_json(const char *text)
{
    auto j = ujson::create();
    EXPECT_TRUE(j && blobmsg_add_json_from_string(j->buffer(), text)) << text;
    return j;
}

// Runs the event loop for ms milliseconds.
inline void run_loop(int ms = 20)
{
    uloop_timeout stop{};
    stop.cb = [](uloop_timeout *) { uloop_end(); };
    uloop_timeout_set(&stop, ms);
    uloop_run();
    uloop_timeout_cancel(&stop);
}

} // namespace services_test
