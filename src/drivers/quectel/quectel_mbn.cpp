// Carrier configuration profiles (MBN files) of Qualcomm-based Quectel
// modems: AT+QMBNCFG. The verbs are answered in the case the firmware
// likes (BG95 prints "list", EC2x "List"), so they are compared ignoring case.
#include <strings.h>

#include <string>

#include "core/modem.h"
#include "drivers/generic/generic_helpers.h"
#include "drivers/quectel/quectel_sys.h"
#include "ubus/vocab.h"
#include "util/ujson.h"

namespace quectel
{

namespace
{

// MBN names as the modem lists them ("Commercial-TMO_VoLTE").
constexpr size_t mbn_name_max = 64;

bool verb_is(std::string_view field, std::string_view verb)
{
    return field.size() == verb.size() && strncasecmp(field.data(), verb.data(), verb.size()) == 0;
}

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
    for_each_tagged(answer(mdm), "+QMBNCFG", [&](std::string_view line) {
        std::string_view f[8];
        size_t n = line_fields(line, f, 8);
        int index, selected, activated;
        if (n < 5 || !verb_is(f[0], "List") || !field_int(f[1], index) || !field_int(f[2], selected) ||
            !field_int(f[3], activated) || f[4].empty())
            return;
        void *entry = json->open_table(nullptr);
        json->add_int("index", index);
        json->add_bool("selected", selected != 0);
        json->add_bool("activated", activated != 0);
        reply_text(json, "name", f[4]);
        if (n > 5 && !f[5].empty() && f[5] != "-")
            reply_text(json, "version", f[5]);
        if (n > 6 && !f[6].empty() && f[6] != "-")
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
    int mode = -1;
    for_each_tagged(answer(mdm), "+QMBNCFG", [&](std::string_view line) {
        std::string_view f[2];
        int value;
        if (mode < 0 && line_fields(line, f, 2) == 2 && verb_is(f[0], "AutoSel") && field_int(f[1], value) &&
            (value == 0 || value == 1))
            mode = value;
    });
    if (mode < 0)
        return ACT_STATUS_INVALID_RESPONSE;
    reply_enum(json, "mode", static_cast<uint32_t>(mode) + 1, mbn_auto_sel_str);
    return ACT_STATUS_OK;
}

} // namespace quectel
