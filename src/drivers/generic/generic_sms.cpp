#include "drivers/generic/generic_sms.h"

#include "core/modem.h"
#include "drivers/generic/generic_helpers.h"
#include "util/ujson.h"

// +CMTI: <mem>,<index>: a message was stored. Each arrival is notified,
// also when it reuses the index of the previous one.
int urc_cmti(modem *mdm, ujson *)
{
    int32_t index;
    if (scan(answer(mdm), "\r\n+CMTI: \"%*[^\"]\",%d", &index) != 1 || index < 0)
        return ACT_STATUS_INVALID_URC;
    mdm->force_event(EVT_SMS_INDEX, &index);
    return ACT_STATUS_OK;
}

int generic_sms_probe(modem_driver *driver)
{
    modem_driver_urc_override(driver, "+CMTI", urc_cmti);
    return 0;
}
