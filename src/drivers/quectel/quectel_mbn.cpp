// Carrier configuration profiles (MBN files) of Qualcomm-based Quectel
// modems: AT+QMBNCFG. The verbs are answered in the case the firmware
// likes (BG95 prints "list", EC2x "List"), so they are compared ignoring case.
#include <string>

#include "core/modem.h"
#include "drivers/generic/generic_helpers.h"
#include "drivers/quectel/quectel_answer.h"
#include "drivers/quectel/quectel_sys.h"
#include "ubus/vocab.h"
#include "util/ujson.h"

namespace quectel
{

namespace
{

// MBN names as the modem lists them ("Commercial-TMO_VoLTE").
constexpr size_t mbn_name_max = 64;

// A name for the modem's file store: no control characters and no path
// separators (quotes, CR and LF are already refused with every argument).
bool valid_mbn_name(std::string_view name)
{
    if (name.empty())
        return false;
    for (char c : name)
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f || c == '/' || c == '\\')
            return false;
    return true;
}

} // namespace

// +QMBNCFG: "List",<index>,<selected>,<activated>,"<name>",<version>,<date>
// per profile; the version is hex text and the date yyyymmddN, both kept as
// printed. A line without index, flags or name is skipped.
int get_mbn_list(modem *mdm, int type, ujson *json, request *req)
{
    if (type == 0)
        return set_command(req, "AT+QMBNCFG=\"List\"\r");
    if (!answer_ok(mdm))
        return ACT_STATUS_INVALID_RESPONSE;
    void *list = json->open_array("list");
    for_each_tagged(answer(mdm), "+QMBNCFG", [&](const fields &f) {
        int index, selected, activated;
        if (f.size() < 5 || !equal_nocase(f[0], "List") || !to_number(f[1], index) || !to_number(f[2], selected) ||
            !to_number(f[3], activated) || f[4].empty())
            return;
        void *entry = json->open_table(nullptr);
        json->add_int("index", index);
        json->add_bool("selected", selected != 0);
        json->add_bool("activated", activated != 0);
        reply_text(json, "name", f[4]);
        if (has_value(field_at(f, 5)))
            reply_text(json, "version", f[5]);
        if (has_value(field_at(f, 6)))
            reply_text(json, "release_date", f[6]);
        json->close_table(entry);
    });
    json->close_array(list);
    return ACT_STATUS_OK;
}

// Deactivates the active profile at once; the modem answers ERROR when none is.
int mbn_deactivate(modem *mdm, int type, ujson *, request *req)
{
    return simple_command(mdm, type, req, "AT+QMBNCFG=\"Deactivate\"\r");
}

// The profile becomes active after the modem's restart.
int set_mbn_select(modem *mdm, int type, ujson *json, request *req)
{
    if (type != 0)
        return restart_result(mdm, json);
    act_args args(json);
    const char *name = args.text("mbn_name", mbn_name_max);
    if (!args.ok() || !valid_mbn_name(name))
        return ACT_STATUS_INVALID_ARGS;
    return set_commandf(req, "AT+QMBNCFG=\"Select\",\"%s\"\r", name);
}

// 1: the modem picks the profile from the SIM's network; saved, effective
// after the restart.
int set_mbn_auto_sel(modem *mdm, int type, ujson *json, request *req)
{
    if (type != 0)
        return restart_result(mdm, json);
    act_args args(json);
    uint32_t mode = args.keyword("mode", mbn_auto_sel_arg_enum);
    if (!args.ok())
        return args.status();
    return set_commandf(req, "AT+QMBNCFG=\"AutoSel\",%u\r", mode - 1);
}

int get_mbn_auto_sel(modem *mdm, int type, ujson *json, request *req)
{
    if (type == 0)
        return set_command(req, "AT+QMBNCFG=\"AutoSel\"\r");
    if (!answer_ok(mdm))
        return ACT_STATUS_INVALID_RESPONSE;
    int mode;
    if (!to_number(field_at(item_values(answer(mdm), "+QMBNCFG", "AutoSel"), 0), mode, 0, 1))
        return ACT_STATUS_INVALID_RESPONSE;
    reply_enum(json, "mode", static_cast<uint32_t>(mode) + 1, mbn_auto_sel_str);
    return ACT_STATUS_OK;
}

} // namespace quectel
