#include "drivers/quectel/quectel_sys.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "comm/request.h"
#include "core/modem.h"
#include "core/sim_config.h"
#include "drivers/generic/generic_helpers.h"
#include "drivers/generic/generic_sys.h"
#include "drivers/quectel/quectel_answer.h"
#include "ubus/vocab.h"
#include "util/log.h"
#include "util/ujson.h"

namespace quectel
{

int restart_result(modem *mdm, ujson *json)
{
    if (!answer_ok(mdm))
        return ACT_STATUS_INVALID_RESPONSE;
    json->add_bool("restart", true);
    return ACT_STATUS_OK;
}

namespace
{

// The values of the "+QCFG: "<name>",..." line of an OK answer (the fields
// after the name); none when the answer is not OK or holds no such line.
fields qcfg_values(const modem *mdm, std::string_view name)
{
    return answer_ok(mdm) ? item_values(answer(mdm), "+QCFG", name) : fields();
}

// The first value of the +QCFG line for name as a number.
bool qcfg_int(const modem *mdm, std::string_view name, int &value)
{
    fields values = qcfg_values(mdm, name);
    return !values.empty() && to_number(values[0], value);
}

// The fields of the first line tagged tag of an OK answer.
fields ok_fields(const modem *mdm, std::string_view tag)
{
    return answer_ok(mdm) ? tagged_fields(answer(mdm), tag) : fields();
}

// The information text of an answer: without its framing and final OK.
std::string_view info_text(const modem *mdm)
{
    std::string_view text = answer(mdm);
    auto strip = [&text] {
        while (!text.empty() && (text.front() == '\r' || text.front() == '\n'))
            text.remove_prefix(1);
        while (!text.empty() && (text.back() == '\r' || text.back() == '\n'))
            text.remove_suffix(1);
    };
    strip();
    if (text.ends_with("OK"))
        text.remove_suffix(2);
    strip();
    return text;
}

// --- identity -------------------------------------------------------------------------

// "<main>_<modem major>.<modem minor>.<ap major>.<ap minor>": an application
// part of "00.000" is printed while the module is still starting.
bool firmware_starting(std::string_view firmware)
{
    size_t underscore = firmware.rfind('_');
    if (underscore == std::string_view::npos)
        return false;
    std::string_view parts = firmware.substr(underscore + 1);
    return std::count(parts.begin(), parts.end(), '.') == 3 && parts.ends_with(".00.000");
}

// --- URC port -----------------------------------------------------------------------------

// The ports AT+QURCCFG="urcport" can route URCs to; the text is the AT value.
constexpr const char *urc_ports[] = {nullptr, "usbat", "usbmodem", "uart1", "uart2", "all"};

uint32_t urc_port_arg_enum(std::string_view arg)
{
    for (uint32_t id = 1; id < std::size(urc_ports); id++)
        if (arg == urc_ports[id])
            return id;
    return 0;
}

const char *urc_port_str(uint32_t id)
{
    return id > 0 && id < std::size(urc_ports) ? urc_ports[id] : "unknown";
}

// The URC indication id of AT+QINDCFG's "all": switching it off would
// silence every report the daemon follows.
constexpr uint32_t urc_ind_all = 1;

// --- SIM slots ---------------------------------------------------------------------------

// How a family's firmware selects one of the modem's own SIM interfaces:
// the AT value is the slot index minus offset.
struct slot_commands {
    const char *set_fmt;
    const char *query;
    const char *tag;
    int offset;
};

constexpr slot_commands qdsim = {"AT+QDSIM=%d\r", "AT+QDSIM?\r", "+QDSIM", 1};
constexpr slot_commands quimslot = {"AT+QUIMSLOT=%d\r", "AT+QUIMSLOT?\r", "+QUIMSLOT", 0};

uint32_t wired_slots(const modem *mdm)
{
    return mdm->sim_cfg() ? std::min(mdm->sim_slot_count(), sim_config::max_slots) : 0;
}

// Several slots wired to the modem, none of them behind a selector line
// the board drives: only the modem itself can switch between them, so the
// slots are its own SIM interfaces in the order the factory data lists them.
bool modem_switches_slots(const modem *mdm)
{
    uint32_t count = wired_slots(mdm);
    if (count < 2)
        return false;
    for (uint32_t i = 0; i < count; i++) {
        const sim_slot &s = mdm->sim_cfg()->slots()[i];
        if ((s.control_type == 2 && s.switch1_state != SIM_SWITCH_UNUSED) || s.switch2_state != SIM_SWITCH_UNUSED)
            return false;
    }
    return true;
}

int set_sim_slot_with(const slot_commands &cmds, modem *mdm, int type, ujson *json, request *req)
{
    if (!modem_switches_slots(mdm))
        return set_io_sim_slot(mdm, type, json, req);
    if (type == 0) {
        act_args args(json);
        int32_t index = args.number("index", 1, static_cast<int32_t>(wired_slots(mdm)));
        if (!args.ok())
            return args.status();
        int status = set_commandf(req, cmds.set_fmt, index - cmds.offset);
        return status == ACT_STATUS_OK ? set_extra(req, index) : status;
    }
    const int32_t *index = get_extra<int32_t>(req);
    if (!index || !answer_ok(mdm))
        return ACT_STATUS_INVALID_RESPONSE;
    // Whether the firmware needs a restart to use the new slot is not
    // known; the SIM's own reports follow the switch.
    int32_t slot = *index;
    mdm->new_event(EVT_SIM_CHANGE, &slot);
    json->add_int("index", slot);
    return ACT_STATUS_OK;
}

int get_sim_slot_with(const slot_commands &cmds, modem *mdm, int type, ujson *json, request *req)
{
    if (!modem_switches_slots(mdm))
        return get_io_sim_slot(mdm, type, json, req);
    if (type == 0)
        return set_command(req, cmds.query);
    fields f = ok_fields(mdm, cmds.tag);
    int value;
    if (f.empty() || !to_number(f[0], value) || value + cmds.offset < 1)
        return ACT_STATUS_INVALID_RESPONSE;
    json->add_int("index", value + cmds.offset);
    return ACT_STATUS_OK;
}

// --- temperature ----------------------------------------------------------------------

// Names of the EC2x one-line answer's values, in the order peer parsers
// read them; the firmware documentation giving the order was not found.
constexpr const char *ec2x_sensors[] = {"pmic", "xo", "pa"};

// A power amplifier sensor ("pa", "modem-lte-sub6-pa1", "pa_therm0"): it
// reads 0 while the amplifier is idle.
bool pa_sensor(std::string_view name)
{
    size_t dash = name.rfind('-');
    std::string_view last = dash == std::string_view::npos ? name : name.substr(dash + 1);
    return last.starts_with("pa") && (last.size() == 2 || !((last[2] | 0x20) >= 'a' && (last[2] | 0x20) <= 'z'));
}

bool valid_reading(std::string_view name, int value)
{
    return value != -273 && !(value == 0 && pa_sensor(name));
}

} // namespace

// --- identity -------------------------------------------------------------------------

// The revision (AT+GMR, what ATI prints and the modem was identified by) is
// "firmware", as on every modem; Quectel's full version with its modem and
// application parts (AT+QGMR, asked in a second part so that a firmware
// without it still answers the revision) is "firmware_full".
int get_firmware(modem *mdm, int type, ujson *json, request *req)
{
    if (type == 0)
        return set_command(req, "AT+GMR\rAT+QGMR\r");
    std::string_view gmr, qgmr;
    split_parts(answer(mdm), &gmr, &qgmr);
    std::string_view revision = trim(first_line(gmr)).substr(0, 63);
    bool gmr_ok = gmr.ends_with("\r\nOK\r\n") || gmr.ends_with("0\r");
    if (!gmr_ok || revision.empty() || revision == "OK")
        return ACT_STATUS_INVALID_RESPONSE;
    std::string_view line = first_line(qgmr);
    // The read form some firmware answers with carries the tag.
    tagged(line, "+QGMR", &line);
    std::string_view full = trim(line).substr(0, 63);
    bool qgmr_ok = qgmr.ends_with("\r\nOK\r\n") || qgmr.ends_with("0\r");
    if (!qgmr_ok || full == "OK")
        full = {};
    if (firmware_starting(full)) {
        LOG_DEBUG("[QUECTEL_DRIVER] Modem `%s [%s]` firmware version not ready yet\n", mdm->id(), mdm->vid_pid());
        return ACT_STATUS_INVALID_RESPONSE;
    }
    reply_text(json, "firmware", revision);
    if (!full.empty())
        reply_text(json, "firmware_full", full);
    cache_text(mdm, "firmware", revision);
    return ACT_STATUS_OK;
}

int get_sn(modem *mdm, int type, ujson *json, request *req)
{
    if (type == 0)
        return set_command(req, "AT+EGMR=0,5\r");
    fields f = ok_fields(mdm, "+EGMR");
    if (f.empty() || f[0].empty() || f[0].size() > 31)
        return ACT_STATUS_INVALID_RESPONSE;
    reply_text(json, "serial", f[0]);
    cache_text(mdm, "serial_num", f[0]);
    return ACT_STATUS_OK;
}

int get_iccid(modem *mdm, int type, ujson *json, request *req)
{
    if (type == 0)
        return set_command(req, "AT+QCCID\r");
    fields f = ok_fields(mdm, "+QCCID");
    if (f.empty())
        return ACT_STATUS_INVALID_RESPONSE;
    std::string_view iccid = f[0];
    // Odd-length ICCIDs are padded with F.
    while (iccid.ends_with('F') || iccid.ends_with('f'))
        iccid.remove_suffix(1);
    if (iccid.empty() || iccid.size() > 22 ||
        !std::all_of(iccid.begin(), iccid.end(), [](char c) { return c >= '0' && c <= '9'; }))
        return ACT_STATUS_INVALID_RESPONSE;
    reply_text(json, "iccid", iccid);
    cache_text(mdm, "iccid", iccid);
    return ACT_STATUS_OK;
}

// One line per PIN: +QPINC: "SC",<pin left>,<puk left> and the same for "P2".
int get_pin_count(modem *mdm, int type, ujson *json, request *req)
{
    if (type == 0)
        return set_command(req, "AT+QPINC?\r");
    if (!answer_ok(mdm))
        return ACT_STATUS_INVALID_RESPONSE;
    bool found = false;
    for_each_tagged(answer(mdm), "+QPINC", [&](const fields &f) {
        bool sim = equal_nocase(f[0], "SC"), pin2 = equal_nocase(f[0], "P2");
        if (!sim && !pin2)
            return;
        found = true;
        int value;
        if (to_number(field_at(f, 1), value))
            json->add_int(sim ? "pin_count" : "pin2_count", value);
        if (to_number(field_at(f, 2), value))
            json->add_int(sim ? "puk_count" : "puk2_count", value);
    });
    return found ? ACT_STATUS_OK : ACT_STATUS_INVALID_RESPONSE;
}

// --- URC routing -----------------------------------------------------------------------

// Saved by the modem and applied at once. A daemon on the USB AT port sees
// no URC unless this is "usbat" or "all".
int set_urc_cfg(modem *mdm, int type, ujson *json, request *req)
{
    if (type != 0)
        return result_status(mdm);
    act_args args(json);
    uint32_t port = args.keyword("port", urc_port_arg_enum);
    if (!args.ok())
        return args.status();
    return set_commandf(req, "AT+QURCCFG=\"urcport\",\"%s\"\r", urc_port_str(port));
}

int get_urc_cfg(modem *mdm, int type, ujson *json, request *req)
{
    if (type == 0)
        return set_command(req, "AT+QURCCFG=\"urcport\"\r");
    fields f = ok_fields(mdm, "+QURCCFG");
    if (f.size() < 2 || !equal_nocase(f[0], "urcport") || f[1].empty())
        return ACT_STATUS_INVALID_RESPONSE;
    uint32_t id = 0;
    for (uint32_t i = 1; i < std::size(urc_ports); i++)
        id = equal_nocase(f[1], urc_ports[i]) ? i : id;
    json->add_int("port_id", static_cast<int32_t>(id));
    // A port this driver does not know is shown as the modem names it.
    reply_text(json, "port", id ? std::string_view(urc_port_str(id)) : f[1]);
    return ACT_STATUS_OK;
}

// AT+QINDCFG has no mask parameter: "urc_mask" is accepted and not used.
int set_urc_ind_cfg(modem *mdm, int type, ujson *json, request *req)
{
    if (type != 0)
        return result_status(mdm);
    act_args args(json);
    uint32_t urc = args.keyword("urc", urc_ind_arg_enum);
    if (!args.ok() || !args.has("enabled"))
        return ACT_STATUS_INVALID_ARGS;
    bool enabled = args.flag("enabled");
    if (urc == urc_ind_all && !enabled)
        return ACT_STATUS_INVALID_ARGS;
    return set_commandf(req, "AT+QINDCFG=\"%s\",%d\r", urc_ind_arg_str(urc), enabled ? 1 : 0);
}

int get_urc_ind_cfg(modem *mdm, int type, ujson *json, request *req)
{
    if (type == 0) {
        act_args args(json);
        uint32_t urc = args.keyword("urc", urc_ind_arg_enum);
        if (!args.ok())
            return args.status();
        return set_commandf(req, "AT+QINDCFG=\"%s\"\r", urc_ind_arg_str(urc));
    }
    fields f = ok_fields(mdm, "+QINDCFG");
    int enabled;
    if (f.size() < 2 || f[0].empty() || !to_number(f[1], enabled))
        return ACT_STATUS_INVALID_RESPONSE;
    reply_text(json, "urc", f[0]);
    json->add_bool("enabled", enabled != 0);
    return ACT_STATUS_OK;
}

// --- USB and network functions ---------------------------------------------------------------

// 1: the module filters DHCP packets on its USB network interface.
int set_dhcp_pkt_fltr(modem *mdm, int type, ujson *json, request *req)
{
    if (type != 0)
        return result_status(mdm);
    act_args args(json);
    if (!args.has("disabled"))
        return ACT_STATUS_INVALID_ARGS;
    return set_commandf(req, "AT+QCFG=\"dhcppktfltr\",%d\r", args.flag("disabled") ? 0 : 1);
}

int get_dhcp_pkt_fltr(modem *mdm, int type, ujson *json, request *req)
{
    if (type == 0)
        return set_command(req, "AT+QCFG=\"dhcppktfltr\"\r");
    int value;
    if (!qcfg_int(mdm, "dhcppktfltr", value) || (value != 0 && value != 1))
        return ACT_STATUS_INVALID_RESPONSE;
    json->add_bool("disabled", value == 0);
    return ACT_STATUS_OK;
}

// Warning for callers: after the restart the modem comes back as another
// USB device (QMI, ECM, MBIM or RNDIS), with renumbered AT ports and another
// network driver; a wrong choice leaves a remote router without its modem.
int set_usbnet_cfg(modem *mdm, int type, ujson *json, request *req)
{
    if (type != 0)
        return restart_result(mdm, json);
    act_args args(json);
    uint32_t mode = args.keyword("mode", usbnet_mode_id_enum);
    // Only 0 (QMI) to 3 (RNDIS) are known to mean the same on every model.
    if (!args.ok() || mode - 1 > 3)
        return ACT_STATUS_INVALID_ARGS;
    return set_commandf(req, "AT+QCFG=\"usbnet\",%u\r", mode - 1);
}

int get_usbnet_cfg(modem *mdm, int type, ujson *json, request *req)
{
    if (type == 0)
        return set_command(req, "AT+QCFG=\"usbnet\"\r");
    int value;
    if (!qcfg_int(mdm, "usbnet", value) || value < 0)
        return ACT_STATUS_INVALID_RESPONSE;
    // Model-specific values above 3 have no confirmed meaning: kept raw.
    if (value <= 3)
        reply_enum(json, "mode", static_cast<uint32_t>(value) + 1, usbnet_mode_id_str);
    else
        json->add_int("mode_raw", value);
    return ACT_STATUS_OK;
}

// What the values select is not confirmed: the number as printed.
int get_nat_cfg_nr(modem *mdm, int type, ujson *json, request *req)
{
    if (type == 0)
        return set_command(req, "AT+QCFG=\"nat\"\r");
    int value;
    if (!qcfg_int(mdm, "nat", value))
        return ACT_STATUS_INVALID_RESPONSE;
    json->add_int("mode_raw", value);
    return ACT_STATUS_OK;
}

// --- IMS and VoLTE ------------------------------------------------------------------------

namespace
{

// AT+QCFG="ims": 0 as the carrier profile says, 1 IMS on, 2 IMS off (the
// ims_state ids minus 1). Applied after a restart.
constexpr int ims_on = 1;
constexpr int ims_off = 2;

struct ims_set {
    bool apply;
};

// +QCFG: "ims",<setting>[,<second value>]; the second value's meaning is
// not confirmed, so it is passed on as printed.
bool read_ims(const modem *mdm, ujson *json, int &setting)
{
    fields values = qcfg_values(mdm, "ims");
    if (values.empty() || !to_number(values[0], setting, 0, 2))
        return false;
    int second;
    if (to_number(field_at(values, 1), second))
        json->add_int("volte_cap_raw", second);
    return true;
}

} // namespace

int set_ims_state(modem *mdm, int type, ujson *json, request *req)
{
    if (type == 0) {
        act_args args(json);
        uint32_t state = args.keyword("state", ims_state_enum);
        if (!args.ok())
            return args.status();
        int status = set_commandf(req, "AT+QCFG=\"ims\",%u\r", state - 1);
        return status == ACT_STATUS_OK ? set_extra(req, ims_set{args.flag("apply")}) : status;
    }
    const ims_set *set = get_extra<ims_set>(req);
    int status = restart_result(mdm, json);
    if (status != ACT_STATUS_OK || !set || !set->apply)
        return status;
    bool rebooting = modem_invoke_mctl_reboot(mdm) == 0;
    if (!rebooting)
        LOG_ERROR("[QUECTEL_DRIVER] Failed to request a restart of `%s [%s]` modem!\n", mdm->id(), mdm->vid_pid());
    json->add_bool("rebooting", rebooting);
    return ACT_STATUS_OK;
}

int get_ims_state(modem *mdm, int type, ujson *json, request *req)
{
    if (type == 0)
        return set_command(req, "AT+QCFG=\"ims\"\r");
    int setting;
    if (!read_ims(mdm, json, setting))
        return ACT_STATUS_INVALID_RESPONSE;
    reply_enum(json, "state", static_cast<uint32_t>(setting) + 1, ims_state_str);
    return ACT_STATUS_OK;
}

// VoLTE rides on IMS: forcing IMS on or off is what switches it.
int set_volte_state(modem *mdm, int type, ujson *json, request *req)
{
    if (type != 0)
        return restart_result(mdm, json);
    act_args args(json);
    uint32_t state = args.keyword("state", volte_state_enum);
    if (!args.ok())
        return args.status();
    return set_commandf(req, "AT+QCFG=\"ims\",%d\r", state == 2 ? ims_on : ims_off);
}

// While IMS follows the carrier profile the setting alone does not tell:
// "follows_mbn" instead of a state.
int get_volte_state(modem *mdm, int type, ujson *json, request *req)
{
    if (type == 0)
        return set_command(req, "AT+QCFG=\"ims\"\r");
    int setting;
    if (!read_ims(mdm, json, setting))
        return ACT_STATUS_INVALID_RESPONSE;
    if (setting == 0)
        json->add_bool("follows_mbn", true);
    else
        reply_enum(json, "state", setting == ims_on ? 2 : 1, volte_state_str);
    return ACT_STATUS_OK;
}

// +CIREG: <n>,<reg_info>[,<ext_info>] (3GPP TS 27.007): ready when
// registered with IMS and, if the network's services are given, voice
// over RTP (bit 1) is among them.
int get_volte_ready(modem *mdm, int type, ujson *json, request *req)
{
    if (type == 0)
        return set_command(req, "AT+CIREG?\r");
    fields f = ok_fields(mdm, "+CIREG");
    int reg, ext = 0;
    if (!to_number(field_at(f, 1), reg))
        return ACT_STATUS_INVALID_RESPONSE;
    bool has_ext = to_number(field_at(f, 2), ext);
    json->add_bool("ims_registered", reg == 1);
    if (has_ext)
        json->add_int("ext_info", ext);
    json->add_bool("ready", reg == 1 && (!has_ext || (ext & 1)));
    return ACT_STATUS_OK;
}

// --- SIM detection ------------------------------------------------------------------------

namespace
{

// A change of one of the two values: the other is read first and the write
// follows with both.
struct qsimdet_set {
    bool read_first;
    int8_t enabled; // -1: keep the modem's
    int8_t level;
};

bool read_qsimdet(const modem *mdm, int &enabled, int &level)
{
    fields f = ok_fields(mdm, "+QSIMDET");
    return to_number(field_at(f, 0), enabled, 0, 1) && to_number(field_at(f, 1), level, 0, 1);
}

} // namespace

int get_qsimdet(modem *mdm, int type, ujson *json, request *req)
{
    if (type == 0)
        return set_command(req, "AT+QSIMDET?\r");
    int enabled, level;
    if (!read_qsimdet(mdm, enabled, level))
        return ACT_STATUS_INVALID_RESPONSE;
    json->add_bool("enabled", enabled == 1);
    json->add_int("insert_level", level);
    return ACT_STATUS_OK;
}

// Saved by the modem, effective after its restart. insert_level is the
// level of the detect pin with a SIM inserted (0 low, 1 high): a level the
// board's holder does not give makes detection silently fail.
int set_qsimdet(modem *mdm, int type, ujson *json, request *req)
{
    if (type == 0) {
        act_args args(json);
        bool has_enabled = args.has("enabled");
        bool has_level = args.has("insert_level");
        int32_t level = args.opt_number("insert_level", 0, 1, 0);
        if (!args.ok() || (!has_enabled && !has_level))
            return ACT_STATUS_INVALID_ARGS;
        qsimdet_set set{!(has_enabled && has_level), static_cast<int8_t>(has_enabled ? args.flag("enabled") : -1),
                        static_cast<int8_t>(has_level ? level : -1)};
        int status = set.read_first ? set_command(req, "AT+QSIMDET?\r")
                                    : set_commandf(req, "AT+QSIMDET=%d,%d\r", set.enabled, set.level);
        return status == ACT_STATUS_OK ? set_extra(req, set) : status;
    }
    const qsimdet_set *set = get_extra<qsimdet_set>(req);
    if (!set)
        return ACT_STATUS_INVALID_RESPONSE;
    if (!set->read_first)
        return restart_result(mdm, json);
    int enabled, level;
    if (!read_qsimdet(mdm, enabled, level))
        return ACT_STATUS_INVALID_RESPONSE;
    auto args = ujson::create();
    if (!args)
        return ACT_STATUS_NO_MEMORY;
    args->add_bool("enabled", set->enabled >= 0 ? set->enabled == 1 : enabled == 1);
    args->add_int("insert_level", set->level >= 0 ? set->level : level);
    if (mdm->refresh(ACT_SET_QSIMDET, args.get()) != 0) {
        LOG_ERROR("[QUECTEL_DRIVER] Failed to queue the SIM detection write for `%s [%s]` modem!\n", mdm->id(),
                  mdm->vid_pid());
        return 1;
    }
    json->add_bool("restart", true);
    return ACT_STATUS_OK;
}

// AT+QCFG="sim/recovery",<a>,<b>,<c>: the modem lists the ranges (3-300),
// (0,5-300) and (0,300); what each value controls is not confirmed. The
// three arguments map to the three values in order. The last range is
// taken as 0 to 300: the modem refuses what it does not take.
int set_sim_soft_hotplug(modem *mdm, int type, ujson *json, request *req)
{
    if (type != 0)
        return result_status(mdm);
    act_args args(json);
    int32_t recovery = args.number("recovery_count", 3, 300);
    int32_t period = args.number("detect_period", 0, 300);
    int32_t count = args.number("detect_count", 0, 300);
    if (!args.ok() || (period > 0 && period < 5))
        return ACT_STATUS_INVALID_ARGS;
    return set_commandf(req, "AT+QCFG=\"sim/recovery\",%d,%d,%d\r", recovery, period, count);
}

int get_sim_soft_hotplug(modem *mdm, int type, ujson *json, request *req)
{
    if (type == 0)
        return set_command(req, "AT+QCFG=\"sim/recovery\"\r");
    static constexpr const char *keys[] = {"recovery_count", "detect_period", "detect_count"};
    fields values = qcfg_values(mdm, "sim/recovery");
    int value;
    if (!to_number(field_at(values, 0), value))
        return ACT_STATUS_INVALID_RESPONSE;
    for (size_t i = 0; i < values.size() && i < std::size(keys); i++)
        if (to_number(values[i], value))
            json->add_int(keys[i], value);
    return ACT_STATUS_OK;
}

// --- SIM slots --------------------------------------------------------------------------

int quectel_set_sim_slot(modem *mdm, int type, ujson *json, request *req)
{
    return set_sim_slot_with(qdsim, mdm, type, json, req);
}

int quectel_get_sim_slot(modem *mdm, int type, ujson *json, request *req)
{
    return get_sim_slot_with(qdsim, mdm, type, json, req);
}

int quectel_set_sim_slot_nr(modem *mdm, int type, ujson *json, request *req)
{
    return set_sim_slot_with(quimslot, mdm, type, json, req);
}

int quectel_get_sim_slot_nr(modem *mdm, int type, ujson *json, request *req)
{
    return get_sim_slot_with(quimslot, mdm, type, json, req);
}

// --- temperature ----------------------------------------------------------------------

// EC2x: +QTEMP: <a>,<b>,<c>; RM5xx: one +QTEMP:"<sensor>","<degC>" line per
// sensor. Absent sensors (-273) and idle amplifiers (0) are left out; the
// headline is the ambient sensor when there is one, else the hottest.
int get_temperature(modem *mdm, int type, ujson *json, request *req)
{
    if (type == 0)
        return set_command(req, "AT+QTEMP\r");
    if (!answer_ok(mdm))
        return ACT_STATUS_INVALID_RESPONSE;
    struct reading {
        std::string_view name;
        int value;
    };
    std::vector<reading> readings;
    bool found = false;
    auto add = [&readings](std::string_view name, std::string_view field) {
        int value;
        if (to_number(field, value) && valid_reading(name, value))
            readings.push_back({name, value});
    };
    for_each_tagged(answer(mdm), "+QTEMP", [&](const fields &f) {
        int number;
        found = true;
        if (f.size() >= 2 && !f[0].empty() && !to_number(f[0], number)) {
            add(f[0], f[1]);
            return;
        }
        for (size_t i = 0; i < f.size() && i < std::size(ec2x_sensors); i++)
            add(ec2x_sensors[i], f[i]);
    });
    if (!found)
        return ACT_STATUS_INVALID_RESPONSE;

    void *sensors = json->open_table("sensors");
    for (const reading &r : readings)
        json->add_int(std::string(r.name).c_str(), r.value);
    json->close_table(sensors);
    auto ambient = std::find_if(readings.begin(), readings.end(),
                                [](const reading &r) { return r.name.find("ambient") != std::string_view::npos; });
    auto hottest = std::max_element(readings.begin(), readings.end(),
                                    [](const reading &a, const reading &b) { return a.value < b.value; });
    if (ambient != readings.end())
        json->add_int("temperature", ambient->value);
    else if (hottest != readings.end())
        json->add_int("temperature", hottest->value);
    return ACT_STATUS_OK;
}

// --- NV backup ---------------------------------------------------------------------------

// The layout of the answer is not confirmed: passed on as printed.
int get_flash_state(modem *mdm, int type, ujson *json, request *req)
{
    if (type == 0)
        return set_command(req, "AT+QPRTPARA?\r");
    if (!answer_ok(mdm))
        return ACT_STATUS_INVALID_RESPONSE;
    reply_text(json, "response", info_text(mdm));
    return ACT_STATUS_OK;
}

} // namespace quectel

int quectel_sys_probe(modem_driver *driver)
{
    using namespace quectel;
    static constexpr struct {
        uint32_t action;
        act_func func;
    } actions[] = {
        {ACT_GET_FIRMWARE, quectel::get_firmware},
        {ACT_GET_SN, quectel::get_sn},
        {ACT_GET_ICCID, get_iccid},
        {ACT_GET_PIN_COUNT, get_pin_count},
        {ACT_SET_URC_CFG, set_urc_cfg},
        {ACT_GET_URC_CFG, get_urc_cfg},
        {ACT_SET_URC_IND_CFG, set_urc_ind_cfg},
        {ACT_GET_URC_IND_CFG, get_urc_ind_cfg},
        {ACT_SET_DHCP_PKT_FLTR, set_dhcp_pkt_fltr},
        {ACT_GET_DHCP_PKT_FLTR, get_dhcp_pkt_fltr},
        {ACT_SET_USBNET_CFG, set_usbnet_cfg},
        {ACT_GET_USBNET_CFG, get_usbnet_cfg},
        {ACT_SET_IMS_STATE, set_ims_state},
        {ACT_GET_IMS_STATE, get_ims_state},
        {ACT_SET_VOLTE_STATE, set_volte_state},
        {ACT_GET_VOLTE_STATE, get_volte_state},
        {ACT_GET_VOLTE_READY, get_volte_ready},
        {ACT_GET_QSIMDET, get_qsimdet},
        {ACT_SET_QSIMDET, set_qsimdet},
        {ACT_SET_SIM_SOFT_HOTPLUG, set_sim_soft_hotplug},
        {ACT_GET_SIM_SOFT_HOTPLUG, get_sim_soft_hotplug},
        {ACT_SET_SIM_SLOT, quectel_set_sim_slot},
        {ACT_GET_SIM_SLOT, quectel_get_sim_slot},
        {ACT_GET_TEMPERATURE, get_temperature},
        {ACT_GET_FLASH_STATE, get_flash_state},
        {ACT_GET_MBN_LIST, get_mbn_list},
        {ACT_MBN_DEACTIVATE, mbn_deactivate},
        {ACT_MBN_SELECT, set_mbn_select},
        {ACT_SET_MBN_AUTO_SEL, set_mbn_auto_sel},
        {ACT_GET_MBN_AUTO_SEL, get_mbn_auto_sel},
    };
    // No command of the EC2x family does these: "nat" exists on 5G models
    // only, "usbcfg" on none this driver knows; a factory restore
    // (AT+QPRTPARA=3) is destructive and not known to be the configuration
    // restore callers mean; the EFS version, the LTE SMS format and the PDP
    // profile registry have no known command.
    static constexpr uint32_t unsupported[] = {
        ACT_SET_NAT_CFG,        ACT_GET_NAT_CFG,        ACT_SET_USBCFG,
        ACT_GET_USBCFG,         ACT_SET_CEFS_RESTORE,   ACT_GET_EFS_VERSION,
        ACT_GET_LTE_SMS_FORMAT, ACT_SET_LTE_SMS_FORMAT, ACT_GET_PDP_PROFILE_REGISTRY,
    };
    for (const auto &a : actions)
        modem_driver_override(driver, a.action, a.func);
    for (uint32_t action : unsupported)
        modem_driver_override(driver, action, nullptr);
    return 0;
}
