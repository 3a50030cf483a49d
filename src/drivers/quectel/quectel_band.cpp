#include "drivers/quectel/quectel_band.h"

#include <algorithm>
#include <bit>
#include <cinttypes>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include "core/modem.h"
#include "core/modem_info.h"
#include "drivers/generic/generic_helpers.h"
#include "drivers/generic/modem_band.h"
#include "drivers/quectel/quectel_answer.h"
#include "drivers/quectel/quectel_band_text.h"
#include "ubus/modem_api.h"
#include "util/log.h"
#include "util/ujson.h"

using namespace quectel;

namespace
{

// --- band families -----------------------------------------------------------------

enum fam : uint8_t { F_GSM, F_WCDMA, F_LTE, F_LTE_NB, F_NSA, F_SA, F_COUNT };

struct fam_desc {
    const modem_band_family *bands;
    uint64_t modem_band_masks::*row;
    const unsigned *numbers; // band number of family bit k at [k - 1], 0 for none (GSM: MHz)
    size_t n_numbers;
    const char *key;  // reply key, as in the capability report
    const char *skip; // set_default_bands "skip" keyword
};

namespace order = band_mask::detail;

const fam_desc fams[F_COUNT] = {
    {&g_gsm_bands, &modem_band_masks::gsm, order::gsm_order, std::size(order::gsm_order), "gsm", "gsm"},
    {&g_wcdma_bands, &modem_band_masks::wcdma, order::wcdma_order, std::size(order::wcdma_order), "wcdma", "wcdma"},
    {&g_lte_bands, &modem_band_masks::lte, order::lte_order, std::size(order::lte_order), "lte", "lte"},
    {&g_lte_nb_bands, &modem_band_masks::lte_nb, order::lte_order, std::size(order::lte_order), "lte_nb", "lte_nb"},
    {&g_nsa_5g_bands, &modem_band_masks::nsa_5g, order::nr_order, std::size(order::nr_order), "nsa_5g", "nsa_5g"},
    {&g_5g_bands, &modem_band_masks::sa_5g, order::nr_order, order::sa_count, "5g", "sa_5g"},
};

constexpr uint64_t bit_of(size_t k)
{
    return uint64_t{1} << k;
}

unsigned band_number(fam f, size_t k)
{
    const fam_desc &d = fams[f];
    return k >= 1 && k <= d.n_numbers ? d.numbers[k - 1] : 0;
}

uint64_t row_mask(const modem *mdm, fam f)
{
    const modem_info *info = mdm->info();
    return info ? info->bands.*fams[f].row : 0;
}

void reply_names(ujson *json, fam f, uint64_t mask)
{
    void *a = json->open_array(fams[f].key);
    for (size_t k = 1; k <= fams[f].bands->n_bands; k++)
        if (mask & bit_of(k))
            json->add_string(nullptr, modem_band_name(*fams[f].bands, bit_of(k)));
    json->close_array(a);
}

// --- what a set changes -----------------------------------------------------------------------

// The new band mask of every family a set changes; the others stay as the
// modem has them.
struct band_plan {
    uint64_t mask[F_COUNT] = {};
    bool set[F_COUNT] = {};
};

// Whether a family band can be written: a command of band numbers needs the
// band's number, AT+QCFG="band" also a bit of its own (not every WCDMA band
// has one).
using expressible_fn = bool (*)(fam f, size_t k);

// The bands the model supports that the command can write.
uint64_t supported(const modem *mdm, fam f, expressible_fn expressible)
{
    uint64_t row = row_mask(mdm, f), mask = 0;
    for (size_t k = 1; k <= fams[f].bands->n_bands; k++)
        if ((row & bit_of(k)) && expressible(f, k))
            mask |= bit_of(k);
    return mask;
}

// The caller's "bands" as a mask of family f: every name must be a band of
// the family the model lists (or the family's "any", all of them) and the
// command can write. 0 or ACT_STATUS_INVALID_ARGS.
int requested_mask(const modem *mdm, const ujson *json, fam f, expressible_fn expressible, uint64_t &mask)
{
    act_args args(json);
    std::vector<std::string_view> names = args.texts("bands", 64, 24);
    if (!args.ok() || names.empty())
        return ACT_STATUS_INVALID_ARGS;
    mask = 0;
    const uint64_t any = supported(mdm, f, expressible);
    for (std::string_view name : names) {
        uint64_t v = modem_band_name_val(*fams[f].bands, name);
        if (v == 1) {
            mask |= any;
            continue;
        }
        if (!std::has_single_bit(v) || !(any & v))
            return ACT_STATUS_INVALID_ARGS;
        mask |= v;
    }
    return mask ? ACT_STATUS_OK : ACT_STATUS_INVALID_ARGS;
}

// set_default_bands: every supported band of each family the variant has,
// except the families named in "skip". Also reads "reboot".
int default_plan(const modem *mdm, const ujson *json, std::initializer_list<fam> has, expressible_fn expressible,
                 band_plan &plan, bool &reboot)
{
    act_args args(json);
    reboot = args.flag("reboot");
    std::vector<std::string_view> skip = args.texts("skip", 16, 16, true);
    if (!args.ok())
        return ACT_STATUS_INVALID_ARGS;
    bool skipped[F_COUNT] = {};
    for (std::string_view s : skip) {
        size_t f = 0;
        while (f < F_COUNT && !equal_nocase(s, fams[f].skip) && !equal_nocase(s, fams[f].key))
            f++;
        if (f == F_COUNT)
            return ACT_STATUS_INVALID_ARGS;
        skipped[f] = true;
    }
    bool any = false;
    for (fam f : has) {
        uint64_t mask = skipped[f] ? 0 : supported(mdm, f, expressible);
        if (mask) {
            plan.mask[f] = mask;
            plan.set[f] = any = true;
        }
    }
    return any ? ACT_STATUS_OK : ACT_STATUS_INVALID_ARGS;
}

// What the parse of a set needs from its build.
struct set_extra_rec {
    bool reboot;   // restart the modem once the write is accepted
    bool qcfg_rmw; // the write used the remembered AT+QCFG="band" fields
};

// The remembered AT+QCFG="band" fields, as the modem printed them.
constexpr const char *qcfg_cache_key = "qcfg_band";

int set_result(modem *mdm, ujson *json, request *req)
{
    if (!answer_ok(mdm))
        return ACT_STATUS_INVALID_RESPONSE;
    const set_extra_rec *x = get_extra<set_extra_rec>(req);
    const bool reboot = x && x->reboot, qcfg = x && x->qcfg_rmw;
    if (qcfg)
        cache_drop(mdm, qcfg_cache_key);
    if (reboot) {
        bool sent = modem_invoke_mctl_reboot(mdm) == 0;
        if (!sent)
            LOG_WARNING("[QUECTEL_DRIVER] Modem `%s [%s]` restart after the band change could not be requested\n",
                        mdm->id(), mdm->vid_pid());
        json->add_bool("reboot", sent);
    } else if (qcfg) {
        // Read back what the modem kept: the next set starts from it.
        mdm->refresh(ACT_GET_BANDS, nullptr);
    }
    return ACT_STATUS_OK;
}

int store_set(request *req, const std::string &command, set_extra_rec extra)
{
    int st = set_command(req, command);
    return st ? st : set_extra(req, extra);
}

// --- AT+QCFG="band" ------------------------------------------------------------------------

enum class field_kind : uint8_t { gw, gsm, lte, lte_nb, tds };

struct qcfg_field {
    field_kind kind;
    const char *key; // reply key of the raw field
};

struct qcfg_layout {
    qcfg_field fields[3];
    size_t count;
    // 0 in the GSM/WCDMA or LTE field leaves that field as it is; where no
    // such value is known, an untouched field is written as remembered.
    bool zero_keeps;
};

const qcfg_layout ec2x_layout = {
    {{field_kind::gw, "bandval"}, {field_kind::lte, "ltebandval"}, {field_kind::tds, "tdsbandval"}}, 3, true};
const qcfg_layout cat1_layout = {{{field_kind::gw, "bandval"}, {field_kind::lte, "ltebandval"}, {}}, 2, false};
const qcfg_layout lpwa_layout = {
    {{field_kind::gsm, "gsmbandval"}, {field_kind::lte, "catm1bandval"}, {field_kind::lte_nb, "catnb1bandval"}},
    3,
    false};

// GSM (by MHz) and WCDMA (by band number) bits of the GSM/WCDMA field.
struct gw_bit {
    fam f;
    unsigned number;
    uint32_t bit;
};
constexpr gw_bit gw_bits[] = {
    {F_GSM, 900, 0x1},  {F_GSM, 1800, 0x2}, {F_GSM, 850, 0x4},  {F_GSM, 1900, 0x8},  {F_WCDMA, 1, 0x10},
    {F_WCDMA, 2, 0x20}, {F_WCDMA, 5, 0x40}, {F_WCDMA, 8, 0x80}, {F_WCDMA, 6, 0x100}, {F_WCDMA, 4, 0x200},
};

bool carries(field_kind kind, fam f)
{
    switch (kind) {
    case field_kind::gw:
        return f == F_GSM || f == F_WCDMA;
    case field_kind::gsm:
        return f == F_GSM;
    case field_kind::lte:
        return f == F_LTE;
    case field_kind::lte_nb:
        return f == F_LTE_NB;
    case field_kind::tds:
        break;
    }
    return false;
}

// The field bits of family band k; empty when the field cannot hold it.
wide_mask encode_band(field_kind kind, fam f, size_t k)
{
    wide_mask m;
    const unsigned n = band_number(f, k);
    if (!n || !carries(kind, f))
        return m;
    if (kind == field_kind::lte || kind == field_kind::lte_nb) {
        m.set(n - 1);
        return m;
    }
    for (const gw_bit &b : gw_bits)
        if (b.f == f && b.number == n)
            m.w[0] = b.bit;
    return m;
}

wide_mask encode(field_kind kind, fam f, uint64_t mask)
{
    wide_mask m;
    for (size_t k = 1; k <= fams[f].bands->n_bands; k++)
        if (mask & bit_of(k))
            m = m | encode_band(kind, f, k);
    return m;
}

uint64_t decode(field_kind kind, fam f, const wide_mask &field)
{
    uint64_t mask = 0;
    for (size_t k = 1; k <= fams[f].bands->n_bands; k++) {
        wide_mask e = encode_band(kind, f, k);
        if (!e.empty() && (field & e) == e)
            mask |= bit_of(k);
    }
    return mask;
}

bool qcfg_expressible(fam f, size_t k)
{
    const field_kind kind = f == F_LTE ? field_kind::lte : f == F_LTE_NB ? field_kind::lte_nb : field_kind::gw;
    return !encode_band(kind, f, k).empty();
}

constexpr fam all_fams[] = {F_GSM, F_WCDMA, F_LTE, F_LTE_NB, F_NSA, F_SA};

// The field as the model's supported bands would fill it.
wide_mask row_field(const modem *mdm, field_kind kind)
{
    wide_mask m;
    for (fam f : all_fams)
        if (carries(kind, f))
            m = m | encode(kind, f, row_mask(mdm, f));
    return m;
}

struct qcfg_state {
    wide_mask field[3];
    bool known[3] = {};
};

qcfg_state remembered(const modem *mdm)
{
    qcfg_state st;
    const char *text = cached_text(mdm, qcfg_cache_key);
    if (!text)
        return st;
    fields f = fields_of(text);
    for (size_t i = 0; i < f.size() && i < std::size(st.field); i++)
        st.known[i] = has_value(f[i]) && parse_hex(f[i], st.field[i]);
    return st;
}

// AT+QCFG="band" with every field: the changed families' bits replace theirs,
// everything else in a changed field stays as remembered (unknown bits
// included); a field nothing changes is "no change" or written as it is.
std::string qcfg_command(const modem *mdm, const qcfg_layout &l, const band_plan &plan)
{
    const qcfg_state st = remembered(mdm);
    std::string cmd = "AT+QCFG=\"band\"";
    for (size_t i = 0; i < l.count; i++) {
        const field_kind kind = l.fields[i].kind;
        bool touched = false;
        for (fam f : all_fams)
            touched |= plan.set[f] && carries(kind, f);
        cmd += ',';
        if (!touched && l.zero_keeps && kind != field_kind::tds) {
            cmd += '0';
            continue;
        }
        wide_mask v = st.known[i] ? st.field[i] : row_field(mdm, kind);
        for (fam f : all_fams)
            if (plan.set[f] && carries(kind, f))
                v = (v & ~encode(kind, f, ~uint64_t{0})) | encode(kind, f, plan.mask[f]);
        // TD-SCDMA is never configured here; nothing remembered writes 0, what
        // modules without it report.
        cmd += kind == field_kind::tds && !st.known[i] ? std::string("0") : hex_text(v);
    }
    cmd += '\r';
    return cmd;
}

int qcfg_set(modem *mdm, int type, ujson *json, request *req, const qcfg_layout &l, fam f)
{
    if (type)
        return set_result(mdm, json, req);
    band_plan plan;
    int st = requested_mask(mdm, json, f, qcfg_expressible, plan.mask[f]);
    if (st)
        return st;
    plan.set[f] = true;
    return store_set(req, qcfg_command(mdm, l, plan), {false, true});
}

int qcfg_defaults(modem *mdm, int type, ujson *json, request *req, const qcfg_layout &l, std::initializer_list<fam> has)
{
    if (type)
        return set_result(mdm, json, req);
    band_plan plan;
    bool reboot = false;
    int st = default_plan(mdm, json, has, qcfg_expressible, plan, reboot);
    if (st)
        return st;
    return store_set(req, qcfg_command(mdm, l, plan), {reboot, true});
}

int qcfg_get(modem *mdm, int type, ujson *json, request *req, const qcfg_layout &l)
{
    if (!type)
        return set_command(req, "AT+QCFG=\"band\"\r");
    if (!answer_ok(mdm))
        return ACT_STATUS_INVALID_RESPONSE;
    fields v = item_values(answer(mdm), "+QCFG", "band");
    // A field beyond the layout's (a later firmware's addition) is ignored;
    // a missing one leaves its keys out.
    wide_mask value[3];
    bool present[3] = {};
    bool any = false;
    for (size_t i = 0; i < l.count && i < v.size(); i++) {
        std::string_view text = v[i];
        if (!has_value(text))
            continue;
        if (!parse_hex(text, value[i]))
            return ACT_STATUS_INVALID_RESPONSE;
        present[i] = any = true;
    }
    if (!any)
        return ACT_STATUS_INVALID_RESPONSE;
    std::string remember;
    for (size_t i = 0; i < l.count; i++) {
        if (i)
            remember += ',';
        if (!present[i])
            continue;
        remember += v[i];
        reply_text(json, l.fields[i].key, v[i]);
        for (fam fm : all_fams)
            if (carries(l.fields[i].kind, fm))
                reply_names(json, fm, decode(l.fields[i].kind, fm, value[i]));
    }
    cache_text(mdm, qcfg_cache_key, remember);
    return ACT_STATUS_OK;
}

// --- AT+QNWPREFCFG ---------------------------------------------------------------------------

struct nr_item {
    const char *item;
    fam f;
    fam also; // a second family the same list serves, F_COUNT for none
};

struct nr_layout {
    const nr_item *items;
    size_t count;
};

constexpr nr_item qc_nr_items[] = {
    {"gw_band", F_WCDMA, F_COUNT},
    {"lte_band", F_LTE, F_COUNT},
    {"nsa_nr5g_band", F_NSA, F_COUNT},
    {"nr5g_band", F_SA, F_COUNT},
};
constexpr nr_item unisoc_nr_items[] = {
    {"gw_band", F_WCDMA, F_COUNT},
    {"lte_band", F_LTE, F_COUNT},
    {"nr5g_band", F_SA, F_NSA},
};
constexpr nr_layout qc_nr = {qc_nr_items, std::size(qc_nr_items)};
constexpr nr_layout unisoc_nr = {unisoc_nr_items, std::size(unisoc_nr_items)};

bool nr_expressible(fam f, size_t k)
{
    return band_number(f, k) != 0;
}

// One AT line; items after the first joined with ';' (V.250 extended
// commands). A list serving two families carries the union of their bands.
std::string nr_command(const nr_layout &l, const band_plan &plan)
{
    std::string cmd;
    for (size_t i = 0; i < l.count; i++) {
        const nr_item &it = l.items[i];
        std::vector<unsigned> numbers;
        for (fam f : {it.f, it.also}) {
            if (f == F_COUNT || !plan.set[f])
                continue;
            for (size_t k = 1; k <= fams[f].bands->n_bands; k++)
                if (plan.mask[f] & bit_of(k))
                    numbers.push_back(band_number(f, k));
        }
        if (numbers.empty())
            continue;
        std::sort(numbers.begin(), numbers.end());
        numbers.erase(std::unique(numbers.begin(), numbers.end()), numbers.end());
        cmd += cmd.empty() ? "AT+QNWPREFCFG=\"" : ";+QNWPREFCFG=\"";
        cmd += it.item;
        cmd += "\",";
        for (size_t j = 0; j < numbers.size(); j++) {
            if (j)
                cmd += ':';
            cmd += std::to_string(numbers[j]);
        }
    }
    cmd += '\r';
    return cmd;
}

int nr_set(modem *mdm, int type, ujson *json, request *req, const nr_layout &l, fam f)
{
    if (type)
        return set_result(mdm, json, req);
    band_plan plan;
    int st = requested_mask(mdm, json, f, nr_expressible, plan.mask[f]);
    if (st)
        return st;
    plan.set[f] = true;
    return store_set(req, nr_command(l, plan), {false, false});
}

int nr_defaults(modem *mdm, int type, ujson *json, request *req, const nr_layout &l)
{
    if (type)
        return set_result(mdm, json, req);
    band_plan plan;
    bool reboot = false;
    int st = default_plan(mdm, json, {F_WCDMA, F_LTE, F_NSA, F_SA}, nr_expressible, plan, reboot);
    if (st)
        return st;
    return store_set(req, nr_command(l, plan), {reboot, false});
}

int nr_get(modem *mdm, int type, ujson *json, request *req, const nr_layout &l)
{
    if (!type) {
        std::string cmd;
        for (size_t i = 0; i < l.count; i++)
            cmd += std::string(i ? ";+QNWPREFCFG=\"" : "AT+QNWPREFCFG=\"") + l.items[i].item + "\"";
        return set_command(req, cmd + "\r");
    }
    if (!answer_ok(mdm))
        return ACT_STATUS_INVALID_RESPONSE;
    bool any = false;
    for_each_tagged(answer(mdm), "+QNWPREFCFG", [&](const fields &f) {
        if (f.size() < 2 || f[1] == "-")
            return;
        const nr_item *it = nullptr;
        for (size_t i = 0; i < l.count && !it; i++)
            if (equal_nocase(f[0], l.items[i].item))
                it = &l.items[i];
        if (!it)
            return;
        // Band numbers no family lists stay in the raw list only.
        uint64_t mask[2] = {};
        for (unsigned number : band_numbers(f[1]))
            for (int j = 0; j < 2; j++) {
                fam fm = j ? it->also : it->f;
                for (size_t k = 1; fm != F_COUNT && k <= fams[fm].bands->n_bands; k++)
                    if (band_number(fm, k) == number)
                        mask[j] |= bit_of(k);
            }
        reply_text(json, it->item, f[1]);
        reply_names(json, it->f, mask[0]);
        if (it->also != F_COUNT)
            reply_names(json, it->also, mask[1]);
        any = true;
    });
    return any ? ACT_STATUS_OK : ACT_STATUS_INVALID_RESPONSE;
}

} // namespace

// --- EC2x / EG2x / EG9x ----------------------------------------------------------------------

int gsm_band_set(modem *mdm, int type, ujson *json, request *req)
{
    return qcfg_set(mdm, type, json, req, ec2x_layout, F_GSM);
}

int wcdma_band_set(modem *mdm, int type, ujson *json, request *req)
{
    return qcfg_set(mdm, type, json, req, ec2x_layout, F_WCDMA);
}

int lte_band_set(modem *mdm, int type, ujson *json, request *req)
{
    return qcfg_set(mdm, type, json, req, ec2x_layout, F_LTE);
}

int set_default_bands(modem *mdm, int type, ujson *json, request *req)
{
    return qcfg_defaults(mdm, type, json, req, ec2x_layout, {F_GSM, F_WCDMA, F_LTE});
}

int get_bands(modem *mdm, int type, ujson *json, request *req)
{
    return qcfg_get(mdm, type, json, req, ec2x_layout);
}

// --- Cat-1 ----------------------------------------------------------------------------------

int gsm_band_set_cat1(modem *mdm, int type, ujson *json, request *req)
{
    return qcfg_set(mdm, type, json, req, cat1_layout, F_GSM);
}

int wcdma_band_set_cat1(modem *mdm, int type, ujson *json, request *req)
{
    return qcfg_set(mdm, type, json, req, cat1_layout, F_WCDMA);
}

int lte_band_set_cat1(modem *mdm, int type, ujson *json, request *req)
{
    return qcfg_set(mdm, type, json, req, cat1_layout, F_LTE);
}

int set_default_bands_cat1(modem *mdm, int type, ujson *json, request *req)
{
    return qcfg_defaults(mdm, type, json, req, cat1_layout, {F_GSM, F_WCDMA, F_LTE});
}

int get_bands_cat1(modem *mdm, int type, ujson *json, request *req)
{
    return qcfg_get(mdm, type, json, req, cat1_layout);
}

// --- LPWA -----------------------------------------------------------------------------------

int gsm_band_set_lpwa(modem *mdm, int type, ujson *json, request *req)
{
    return qcfg_set(mdm, type, json, req, lpwa_layout, F_GSM);
}

int lte_band_set_lpwa(modem *mdm, int type, ujson *json, request *req)
{
    return qcfg_set(mdm, type, json, req, lpwa_layout, F_LTE);
}

int lte_nb_band_set_lpwa(modem *mdm, int type, ujson *json, request *req)
{
    return qcfg_set(mdm, type, json, req, lpwa_layout, F_LTE_NB);
}

int set_default_bands_lpwa(modem *mdm, int type, ujson *json, request *req)
{
    return qcfg_defaults(mdm, type, json, req, lpwa_layout, {F_GSM, F_LTE, F_LTE_NB});
}

int get_bands_lpwa(modem *mdm, int type, ujson *json, request *req)
{
    return qcfg_get(mdm, type, json, req, lpwa_layout);
}

// --- 5G, Qualcomm ---------------------------------------------------------------------------

int wcdma_band_set_nr(modem *mdm, int type, ujson *json, request *req)
{
    return nr_set(mdm, type, json, req, qc_nr, F_WCDMA);
}

int lte_band_set_nr(modem *mdm, int type, ujson *json, request *req)
{
    return nr_set(mdm, type, json, req, qc_nr, F_LTE);
}

int nsa_5g_band_set_nr(modem *mdm, int type, ujson *json, request *req)
{
    return nr_set(mdm, type, json, req, qc_nr, F_NSA);
}

int sa_5g_band_set_nr(modem *mdm, int type, ujson *json, request *req)
{
    return nr_set(mdm, type, json, req, qc_nr, F_SA);
}

int set_default_bands_nr(modem *mdm, int type, ujson *json, request *req)
{
    return nr_defaults(mdm, type, json, req, qc_nr);
}

int get_bands_nr(modem *mdm, int type, ujson *json, request *req)
{
    return nr_get(mdm, type, json, req, qc_nr);
}

// --- 5G, UNISOC -----------------------------------------------------------------------------

int nsa_5g_band_set_unisoc_nr(modem *mdm, int type, ujson *json, request *req)
{
    return nr_set(mdm, type, json, req, unisoc_nr, F_NSA);
}

int sa_5g_band_set_unisoc_nr(modem *mdm, int type, ujson *json, request *req)
{
    return nr_set(mdm, type, json, req, unisoc_nr, F_SA);
}

int set_default_bands_unisoc_nr(modem *mdm, int type, ujson *json, request *req)
{
    return nr_defaults(mdm, type, json, req, unisoc_nr);
}

int get_bands_unisoc_nr(modem *mdm, int type, ujson *json, request *req)
{
    return nr_get(mdm, type, json, req, unisoc_nr);
}

int quectel_band_probe(modem_driver *driver)
{
    modem_driver_override(driver, ACT_SET_GSM_BAND, gsm_band_set);
    modem_driver_override(driver, ACT_SET_WCDMA_BAND, wcdma_band_set);
    modem_driver_override(driver, ACT_SET_LTE_BAND, lte_band_set);
    modem_driver_override(driver, ACT_SET_DEFAULT_BANDS, set_default_bands);
    modem_driver_override(driver, ACT_GET_BANDS, get_bands);
    return 0;
}
