#include "events/async.h"

int async_init()
{
    return async_sms_init();
}
