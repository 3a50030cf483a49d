// The kinds of asynchronous call a bus caller can start on a modem: the
// process-wide registrations the async managers of all modems use.
#pragma once

class async_item;
class ujson;

// Registers every kind of asynchronous call. 0, or 1 when one failed.
int async_init();

// The SMS send (call 0): the caller's send arguments run ACT_SEND_SMS.
int async_sms_init();

// Takes the pushed arguments when they name a recipient or a text; null
// drops the call.
ujson *async_send_sms_cb(async_item &item);
