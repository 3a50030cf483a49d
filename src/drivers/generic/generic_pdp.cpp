#include "drivers/generic/generic_pdp.h"

#include "core/modem.h"
#include "drivers/generic/generic_helpers.h"
#include "ubus/vocab.h"
#include "util/ujson.h"

namespace
{

// Context ids 1-16, the range the Quectel EC25 gives for its contexts
// (3GPP leaves the range to the modem).
constexpr int32_t cid_min = 1;
constexpr int32_t cid_max = 16;
// The longest APN written: the context list reads an APN back together with
// its closing quote in 63 characters.
constexpr size_t apn_max = 62;
// The longest address: an IPv6 address in the dotted form of 27.007.
constexpr size_t addr_max = 63;

// The zero IPv6 address a dual-stack context shows until it has one.
constexpr std::string_view no_ipv6 = "0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0";

// One +CGPADDR line into json: "cid" and the addresses it carries. With
// drop_zero_v6 the zero IPv6 address counts as none. False when not even
// the context id can be read.
bool add_address(ujson *json, std::string_view line, bool drop_zero_v6)
{
    int cid;
    char addr[64];
    char addr_v6[64];
    int n = scan(line, "\r\n+CGPADDR: %d,%63[^,\r],%63[^,\r]", &cid, addr, addr_v6);
    if (n < 1)
        return false;
    json->add_int("cid", cid);
    if (n >= 2)
        reply_text(json, "addr", unquote(addr));
    if (n >= 3 && !(drop_zero_v6 && unquote(addr_v6) == no_ipv6))
        reply_text(json, "addr_v6", unquote(addr_v6));
    return true;
}

} // namespace

// Without "apn" the context is removed; otherwise it is defined with the
// type and address when given (empty fields when not) and the compression
// settings (off when not given). The IPv4 allocation and the request type
// are written only when asked for, the allocation then as a placeholder
// before the request type.
int set_pdp_ctx(modem *mdm, int type, ujson *json, request *req)
{
    if (type != 0)
        return result_status(mdm);

    act_args args(json);
    int32_t cid = args.number("cid", cid_min, cid_max);
    if (!args.has("apn"))
        return args.ok() ? set_commandf(req, "AT+CGDCONT=%d\r", cid) : args.status();

    uint32_t pdp = args.opt_keyword("type", pdp_type_id_enum);
    const char *apn = args.text("apn", apn_max);
    const char *addr = args.opt_text("addr", addr_max);
    uint32_t d_comp = args.opt_keyword("dt_comp", pdp_data_comp_id_enum);
    uint32_t h_comp = args.opt_keyword("hdr_comp", pdp_hdr_comp_id_enum);
    uint32_t alloc = args.opt_keyword("ipv4_alloc", pdp_ipv4_addr_alloc_id_enum);
    uint32_t req_tp = args.opt_keyword("req_tp", pdp_req_id_enum);
    if (!args.ok())
        return args.status();

    const char *type_q = pdp ? "\"" : "";
    const char *type_text = pdp ? pdp_type_id_str(pdp) : "";
    const char *addr_q = args.has("addr") ? "\"" : "";
    // The AT value of a keyword is its id - 1; absent settings are 0.
    auto at = [](uint32_t id) { return id ? static_cast<int>(id) - 1 : 0; };

    if (req_tp)
        return set_commandf(req, "AT+CGDCONT=%d,%s%s%s,%s%s%s,%s%s%s,%d,%d,%d,%d\r", cid, type_q, type_text, type_q,
                            "\"", apn, "\"", addr_q, addr, addr_q, at(d_comp), at(h_comp), at(alloc), at(req_tp));
    if (alloc)
        return set_commandf(req, "AT+CGDCONT=%d,%s%s%s,%s%s%s,%s%s%s,%d,%d,%d\r", cid, type_q, type_text, type_q, "\"",
                            apn, "\"", addr_q, addr, addr_q, at(d_comp), at(h_comp), at(alloc));
    return set_commandf(req, "AT+CGDCONT=%d,%s%s%s,%s%s%s,%s%s%s,%d,%d\r", cid, type_q, type_text, type_q, "\"", apn,
                        "\"", addr_q, addr, addr_q, at(d_comp), at(h_comp));
}

// One "list" element per defined context. The APN capture stops at the
// comma and so keeps the closing quote. Modems that leave out the IPv4
// allocation and the request type give the first five values only.
int get_pdp_ctx(modem *mdm, int type, ujson *json, request *req)
{
    if (type == 0)
        return set_command(req, "AT+CGDCONT?\r");
    if (!answer_ok(mdm))
        return ACT_STATUS_INVALID_RESPONSE;

    void *list = json->open_array("list");
    for_each_line(answer(mdm), "+CGDCONT: ", [json](std::string_view line) {
        unsigned cid, d_comp, h_comp, alloc, req_tp;
        char pdp[8];
        char apn[64];
        int n = scan(line, "+CGDCONT: %u,\"%7[^,\"\r]\",\"%63[^,\r],\"%*63[^,\r],%u,%u,%u,%u", &cid, pdp, apn, &d_comp,
                     &h_comp, &alloc, &req_tp);
        if (n < 5)
            return;
        void *row = json->open_table(nullptr);
        json->add_int("cid", static_cast<int32_t>(cid));
        reply_enum(json, "type", pdp_type_id_enum(pdp), pdp_type_id_str);
        reply_text(json, "apn", unquote(apn));
        reply_enum(json, "dt_comp", d_comp + 1, pdp_data_comp_id_str);
        reply_enum(json, "hdr_comp", h_comp + 1, pdp_hdr_comp_id_str);
        if (n >= 6)
            reply_enum(json, "ipv4_alloc", alloc + 1, pdp_ipv4_addr_alloc_id_str);
        if (n >= 7)
            reply_enum(json, "req_tp", req_tp + 1, pdp_req_id_str);
        json->close_table(row);
    });
    json->close_array(list);
    return ACT_STATUS_OK;
}

// The addresses of one context; the modem's text as it is (a dual-stack
// context without IPv6 shows the zero address).
int get_pdp_addr(modem *mdm, int type, ujson *json, request *req)
{
    if (type == 0) {
        act_args args(json);
        int32_t cid = args.number("index", cid_min, cid_max);
        return args.ok() ? set_commandf(req, "AT+CGPADDR=%d\r", cid) : args.status();
    }
    if (!answer_ok(mdm) || !add_address(json, from_line(answer(mdm), "+CGPADDR: "), false))
        return ACT_STATUS_INVALID_RESPONSE;
    return ACT_STATUS_OK;
}

// The addresses of every defined context; the zero IPv6 address is left out.
int get_pdp_addr_list(modem *mdm, int type, ujson *json, request *req)
{
    if (type == 0)
        return set_command(req, "AT+CGPADDR\r");
    if (!answer_ok(mdm))
        return ACT_STATUS_INVALID_RESPONSE;

    void *list = json->open_array("list");
    for_each_line(answer(mdm), "+CGPADDR: ", [json](std::string_view line) {
        int cid;
        if (scan(line, "+CGPADDR: %d", &cid) != 1)
            return;
        void *row = json->open_table(nullptr);
        add_address(json, line, true);
        json->close_table(row);
    });
    json->close_array(list);
    return ACT_STATUS_OK;
}

int set_ps_att_state(modem *mdm, int type, ujson *json, request *req)
{
    return set_keyword(mdm, type, json, req, "AT+CGATT=%u\r", "state", ps_att_state_enum);
}

int get_ps_att_state(modem *mdm, int type, ujson *json, request *req)
{
    return query_enum(mdm, type, json, req, "AT+CGATT?\r", "\r\n+CGATT: %d", "state", ps_att_state_str);
}

// The query goes out without its "\r": the request normalises a command
// without a line end by adding one (followed by a NUL byte).
int get_act_pdp_ctx_list(modem *mdm, int type, ujson *json, request *req)
{
    if (type == 0)
        return set_command(req, "AT+CGACT?");
    if (!answer_ok(mdm))
        return ACT_STATUS_INVALID_RESPONSE;

    void *list = json->open_array("list");
    for_each_line(answer(mdm), "+CGACT: ", [json](std::string_view line) {
        int cid, state;
        if (scan(line, "+CGACT: %d,%d", &cid, &state) != 2 || state < 0)
            return;
        void *row = json->open_table(nullptr);
        json->add_int("cid", cid);
        reply_enum(json, "state", static_cast<uint32_t>(state) + 1, pdp_ctx_state_str);
        json->close_table(row);
    });
    json->close_array(list);
    return ACT_STATUS_OK;
}

// +CGCONTRDP: <cid>,<bearer_id>,<apn>[,<local_addr and subnet_mask>
// [,<gw_addr>[,<DNS_prim_addr>[,<DNS_sec_addr>...]]]]: the DNS servers of
// the first line that names one (a dual-stack context has an IPv4 and an
// IPv6 line). A context without DNS servers answers without them.
int get_dns_addr(modem *mdm, int type, ujson *json, request *req)
{
    if (type == 0) {
        act_args args(json);
        int32_t cid = args.number("cid", cid_min, cid_max);
        return args.ok() ? set_commandf(req, "AT+CGCONTRDP=%d\r", cid) : args.status();
    }
    if (!answer_ok(mdm))
        return ACT_STATUS_INVALID_RESPONSE;

    bool seen = false;
    bool done = false;
    for_each_line(answer(mdm), "+CGCONTRDP: ", [&](std::string_view line) {
        seen = true;
        std::string_view f[8];
        size_t n = split_fields(line.substr(sizeof("+CGCONTRDP: ") - 1), f, 8);
        if (done || n < 6 || f[5].empty())
            return;
        reply_text(json, "pri_dns", f[5]);
        if (n >= 7 && !f[6].empty())
            reply_text(json, "sec_dns", f[6]);
        done = true;
    });
    return seen ? ACT_STATUS_OK : ACT_STATUS_INVALID_RESPONSE;
}

void generic_pdp_install(modem_driver *driver)
{
    modem_driver_override(driver, ACT_SET_PDP_CTX, set_pdp_ctx);
    modem_driver_override(driver, ACT_GET_PDP_CTX, get_pdp_ctx);
    modem_driver_override(driver, ACT_GET_PDP_ADDR, get_pdp_addr);
    modem_driver_override(driver, ACT_GET_PDP_ADDR_LIST, get_pdp_addr_list);
    modem_driver_override(driver, ACT_SET_PS_ATT_STATE, set_ps_att_state);
    modem_driver_override(driver, ACT_GET_PS_ATT_STATE, get_ps_att_state);
    modem_driver_override(driver, ACT_GET_ACT_PDP_CTX_LIST, get_act_pdp_ctx_list);
    modem_driver_override(driver, ACT_GET_DNS_ADDR, get_dns_addr);
}
