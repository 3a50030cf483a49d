// The libubox headers, for C++. They are C headers without linkage guards
// (the system's are, and the in-tree ones declare the same), so C++ code
// includes them here, inside one extern "C" block, and never directly. The
// in-tree libubox compiles its definitions through this header as well, so
// the daemon's object code links against either implementation.
// libubus.h carries its own guards and is included as it is.
#pragma once

extern "C" {
#include <libubox/utils.h>
#include <libubox/list.h>
#include <libubox/avl.h>
#include <libubox/blob.h>
#include <libubox/blobmsg.h>
#include <libubox/blobmsg_json.h>
#include <libubox/uloop.h>
#include <libubox/usock.h>
}
