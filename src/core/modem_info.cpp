#include "core/modem_info.h"

#include "drivers/generic/modem_band.h"
#include "ubus/vocab.h"
#include "util/ujson.h"

#include <bit>
#include <cstdio>
#include <cstring>
#include <iterator>

namespace
{

// Identification keys and names are formatted into buffers of these sizes;
// longer texts are cut, and the cut text is what is compared or shown.
constexpr size_t key_size = 16;
constexpr size_t name_size = 32;

constexpr char fold(char c)
{
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

// Whether the first n characters of a and b agree ignoring case, where a text
// that ends early only agrees with one ending at the same place.
bool prefix_equal_ci(std::string_view a, std::string_view b, size_t n)
{
    for (size_t i = 0; i < n; i++) {
        char ca = i < a.size() ? a[i] : '\0';
        char cb = i < b.size() ? b[i] : '\0';
        if (fold(ca) != fold(cb))
            return false;
    }
    return true;
}

bool equal_ci(std::string_view a, std::string_view b)
{
    return a.size() == b.size() && prefix_equal_ci(a, b, a.size());
}

std::span<const modem_info> searched_rows(std::span<const modem_info> table)
{
    return table.empty() ? table : table.subspan(1);
}

// Row whose key starts `text`: the longest key, the earliest row among equals.
template <typename KeyFn>
const modem_info *longest_key_match(std::span<const modem_info> rows, std::string_view text, KeyFn make_key)
{
    const modem_info *best = nullptr;
    size_t best_len = 0;
    char key[key_size];
    for (const modem_info &row : rows) {
        if (!make_key(row, key))
            continue;
        size_t len = strlen(key);
        if (len > best_len && prefix_equal_ci(text, key, len)) {
            best = &row;
            best_len = len;
        }
    }
    return best;
}

template <size_t N> const char *bit_name(const char *const (&names)[N], uint64_t bit, const char *unknown)
{
    if (!std::has_single_bit(bit))
        return unknown;
    size_t index = static_cast<size_t>(std::countr_zero(bit));
    return index < N && names[index] ? names[index] : unknown;
}

constexpr const char *feature_names[] = {
    "ipv6",
    "volte",
    "multi_apn",
    "operator_scan",
    "dpo",
    "rmnet",
    "ecm",
    nullptr,
    "dynamic_mtu",
    "auto_ims",
    "dhcp_filter",
    "extended_timeout",
    "wwan_gnss_conflict",
    "csd",
    "mobile_dfota",
    "auto_3g_bands",
    "framed_routing",
    "low_signal_reconnect",
    "auto_5g_mode",
    "red_cap",
    "no_ussd",
};

constexpr const char *sentence_names[] = {
    "GGA", "RMC", "GSV", "GSA", "VTG", "GLL", "GNS", "GSV+GSA", "GSV+GNS", "GSA+GNS", "GSA+GSV", "GSV+GSA+GNS",
};

constexpr const char *prefix_names[] = {"GP", "GA", "GL", "GN", "PQ", "GB", "GQ", "BD"};

constexpr const char *gnss_keys[GNSS_SYSTEM_COUNT] = {"gps", "glonass", "galileo", "beidou", "qzss"};

void add_bit_names(ujson &json, const char *name, uint64_t bits, unsigned width, const char *(*to_name)(uint64_t))
{
    void *array = json.open_array(name);
    for (unsigned i = 0; i < width; i++)
        if (bits & (uint64_t{1} << i))
            json.add_string(nullptr, to_name(uint64_t{1} << i));
    json.close_array(array);
}

// Feature sets are 32 bits wide.
const char *feature_name(uint64_t bit)
{
    return modem_feature_str(static_cast<uint32_t>(bit));
}

const char *mode_name(uint64_t bit)
{
    return net_mode_str(static_cast<uint32_t>(std::countr_zero(bit)));
}

struct band_family_report {
    const char *key;
    uint64_t modem_band_masks::*mask;
    const char *(*to_name)(uint64_t);
};

constexpr band_family_report band_families[] = {
    {"gsm", &modem_band_masks::gsm, modem_gsm_band_str},
    {"wcdma", &modem_band_masks::wcdma, modem_wcdma_band_str},
    {"lte", &modem_band_masks::lte, modem_lte_band_str},
    {"lte_nb", &modem_band_masks::lte_nb, modem_lte_nb_band_str},
    {"nsa_5g", &modem_band_masks::nsa_5g, modem_nsa_5g_band_str},
    {"5g", &modem_band_masks::sa_5g, modem_5g_band_str},
};

const char *or_empty(const char *text)
{
    return text ? text : "";
}

} // namespace

void modem_info_identify(std::span<const modem_info> table, const modem_info *&info, std::string_view usb_ids)
{
    for (const modem_info &row : searched_rows(table)) {
        if (equal_ci(or_empty(row.usb_ids), usb_ids)) {
            info = &row;
            return;
        }
    }
    info = table.empty() ? nullptr : &table[0];
}

void modem_info_identify_ex(std::span<const modem_info> table, const modem_info *&info, std::string_view firmware,
                            uint32_t type)
{
    const char *pattern = type == MODEM_TYPE_SLM828G ? "%s-%s_%s" : "%s%s%s";
    const modem_info *found =
        longest_key_match(searched_rows(table), firmware, [pattern](const modem_info &row, char *key) {
            snprintf(key, key_size, pattern, or_empty(row.model), or_empty(row.variant), or_empty(row.fw_suffix));
            return true;
        });
    if (found)
        info = found;
}

void modem_info_identify_serial(std::span<const modem_info> table, const modem_info *&info, std::string_view serial,
                                uint32_t type)
{
    if (type == 0)
        return;
    if (type == MODEM_TYPE_SLM750 || type == MODEM_TYPE_SLM770)
        serial = serial.size() > 3 ? serial.substr(3) : std::string_view{};
    const modem_info *found = longest_key_match(searched_rows(table), serial, [type](const modem_info &row, char *key) {
        if (row.type != type)
            return false;
        snprintf(key, key_size, "%s%s", or_empty(row.variant), or_empty(row.sn_suffix));
        return true;
    });
    if (found)
        info = found;
}

void modem_info_identify(const modem_info *&info, std::string_view usb_ids)
{
    modem_info_identify(g_midata, info, usb_ids);
}

void modem_info_identify_ex(const modem_info *&info, std::string_view firmware, uint32_t type)
{
    modem_info_identify_ex(g_midata, info, firmware, type);
}

void modem_info_identify_serial(const modem_info *&info, std::string_view serial, uint32_t type)
{
    modem_info_identify_serial(g_midata, info, serial, type);
}

bool modem_info_validate_model(std::string_view text)
{
    for (const modem_info &row : searched_rows(g_midata))
        if (prefix_equal_ci(text, or_empty(row.model), 4))
            return true;
    return false;
}

const char *modem_info_name(const modem_info *info)
{
    static char buf[name_size];
    if (!info)
        info = &g_midata[0];
    const char *vendor = or_empty(info->vendor), *model = or_empty(info->model), *variant = or_empty(info->variant);
    if (!*model)
        snprintf(buf, sizeof(buf), "%s", vendor);
    else if (!*variant)
        snprintf(buf, sizeof(buf), "%s %s", vendor, model);
    else
        snprintf(buf, sizeof(buf), "%s %s-%s", vendor, model, variant);
    return buf;
}

const char *modem_info_model_name(const modem_info *info)
{
    static char buf[name_size];
    if (!info)
        info = &g_midata[0];
    const char *model = or_empty(info->model), *variant = or_empty(info->variant);
    if (!*variant)
        snprintf(buf, sizeof(buf), "%s", model);
    else
        snprintf(buf, sizeof(buf), "%s-%s", model, variant);
    return buf;
}

const char *modem_feature_str(uint32_t bit)
{
    return bit_name(feature_names, bit, "feature_unknown");
}

const char *modem_gps_str(uint64_t bit)
{
    return bit_name(sentence_names, bit, "unknown");
}

const char *modem_gps_prefix_str(uint64_t bit)
{
    return bit_name(prefix_names, bit, "unknown");
}

void fill_gps_array(ujson &json, const char *name, uint64_t sentences, uint64_t prefixes)
{
    void *table = json.open_table(name);
    add_bit_names(json, "sentences", sentences, std::size(sentence_names), modem_gps_str);
    add_bit_names(json, "prefix", prefixes, std::size(prefix_names), modem_gps_prefix_str);
    json.close_table(table);
}

void modem_info_fill_blob(ujson &json, const modem_info &info)
{
    json.add_int("default_modem_func_id", static_cast<int32_t>(info.default_func));
    json.add_string("default_modem_func", modem_func_str(info.default_func));
    json.add_int("command_timeout", static_cast<int32_t>(info.cmd_timeout));
    json.add_int("settle_time", static_cast<int32_t>(info.settle_ms));
    json.add_int("pdp_ctx_max", static_cast<int32_t>(info.pdp_ctx_max));
    add_bit_names(json, "features", info.features, 32, feature_name);
    json.add_int("default_ims_id", static_cast<int32_t>(info.default_ims));
    json.add_string("default_ims", ims_state_str(info.default_ims));
    add_bit_names(json, "service_mode_list", info.service_modes, 64, mode_name);

    void *bands = json.open_table("band_list");
    for (const band_family_report &family : band_families) {
        uint64_t mask = info.bands.*family.mask;
        if (mask)
            add_bit_names(json, family.key, mask, 64, family.to_name);
    }
    json.close_table(bands);

    void *satellites = json.open_table("gps_satellites");
    for (size_t i = 0; i < GNSS_SYSTEM_COUNT; i++) {
        const modem_nmea &nmea = info.nmea[i];
        if (nmea.sentences || nmea.prefixes)
            fill_gps_array(json, gnss_keys[i], nmea.sentences, nmea.prefixes);
    }
    json.close_table(satellites);

    json.add_bool("reboot_needed", info.reboot_needed);
}
