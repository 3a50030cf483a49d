// How deeply blobmsg arrays and tables nest: our own bound on untrusted
// messages, kept out of the libubox headers (the system's library has no
// such bound) and built from our sources whichever libubox is linked.
#pragma once

#include "wwan/ubox.h"

// The deepest nesting of arrays and tables anything of ours walks. Depth
// counts containers: a scalar is 0, an array or table one more than its
// deepest member. A message (or any attribute taken as a list of members)
// counts by its members and is no level itself: {"a":1} is 0,
// {"a":{"b":[1]}} is 2. Bus servers refuse deeper arguments
// (wwan_blobmsg_check_depth) before reading them; the in-tree JSON formatter,
// JSON -> blobmsg conversion and JSON loaders refuse deeper input instead of
// recursing on it. Real messages stay within a handful of levels.
#define WWAN_BLOBMSG_MAX_DEPTH 32

// The depth of attr as above (of its members with `list`), or -1 once it is
// found to exceed max_depth: nothing below that level is looked at. Members
// that fail blobmsg_check_attr are not entered. Iterative, so any input is
// safe; a null attr is 0.
int wwan_blobmsg_depth(const struct blob_attr *attr, bool list, int max_depth);

inline bool wwan_blobmsg_check_depth(const struct blob_attr *attr, bool list)
{
    return wwan_blobmsg_depth(attr, list, WWAN_BLOBMSG_MAX_DEPTH) >= 0;
}
